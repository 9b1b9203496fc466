// A window. On Wayland its app id is the name of the file it was started from.
#include <QApplication>
#include <QWidget>

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    QWidget window;
    window.show();
    return application.exec();
}
