#include "Views/MessageBox.h"

#include <QAbstractButton>
#include <QPushButton>

namespace MessageBox {

namespace {
std::optional<int> g_nextAnswer;
QString g_lastText;
} // namespace

int ask(const QString &text, const QString &informativeText, const QStringList &buttons)
{
    g_lastText = text;
    if (g_nextAnswer)
        return std::exchange(g_nextAnswer, std::nullopt).value();
    QMessageBox box;
    box.setIcon(QMessageBox::Information);
    box.setText(text);
    box.setInformativeText(informativeText);
    QList<QAbstractButton *> added;
    for (const QString &title : buttons)
        added.append(box.addButton(title, added.isEmpty() ? QMessageBox::AcceptRole
                                                          : QMessageBox::RejectRole));
    if (!added.isEmpty())
        box.setDefaultButton(static_cast<QPushButton *>(added.first()));
    box.exec();
    return int(added.indexOf(box.clickedButton()));
}

void setNextAnswer(std::optional<int> answer)
{
    g_nextAnswer = answer;
}

QString lastText()
{
    return g_lastText;
}

} // namespace MessageBox
