#include "Views/MessageBox.h"

#include <QAbstractButton>
#include <QPushButton>

namespace MessageBox {

namespace {
// Qt wraps the explanation at a narrow width of its own; sentences read better
// on fewer lines.
const QString WiderText = QStringLiteral("QLabel#qt_msgbox_informativelabel { min-width: 300px; }");

std::optional<int> g_nextAnswer;
QString g_lastText;
QString g_lastInformTitle;
QString g_lastDetail;
bool g_informQuietly = false;

// Gone once closed: nobody waits for it.
QMessageBox *newBox(const QString &text, const QString &informativeText)
{
    auto *box = new QMessageBox;
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setStyleSheet(WiderText);
    box->setIcon(QMessageBox::Information);
    box->setText(text);
    box->setInformativeText(informativeText);
    return box;
}
} // namespace

void ask(const QString &text, const QString &informativeText, const QStringList &buttons,
         int defaultButton, std::function<void(int)> answered)
{
    g_lastText = text;
    g_lastDetail = informativeText;
    if (g_nextAnswer) {
        answered(std::exchange(g_nextAnswer, std::nullopt).value());
        return;
    }
    QMessageBox *box = newBox(text, informativeText);
    QList<QAbstractButton *> added;
    for (const QString &title : buttons)
        added.append(box->addButton(title, added.isEmpty() ? QMessageBox::AcceptRole
                                                           : QMessageBox::RejectRole));
    if (defaultButton >= 0 && defaultButton < added.size())
        box->setDefaultButton(static_cast<QPushButton *>(added[defaultButton]));
    // Escape is the careful answer, which every question puts last.
    if (!added.isEmpty())
        box->setEscapeButton(added.last());
    QObject::connect(box, &QMessageBox::finished, box, [box, added, answered = std::move(answered)] {
        answered(int(added.indexOf(box->clickedButton())));
    });
    box->open();
}

void inform(const QString &title, const QString &text)
{
    g_lastInformTitle = title;
    g_lastText = text;
    if (g_informQuietly)
        return;
    QMessageBox *box = newBox(title, text);
    box->setWindowTitle(title);
    box->addButton(QStringLiteral("OK"), QMessageBox::RejectRole);
    box->open();
}

void setInformQuietly(bool quietly)
{
    g_informQuietly = quietly;
}

QString lastDetail()
{
    return g_lastDetail;
}

QString lastInformTitle()
{
    return g_lastInformTitle;
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
