#pragma once

#include <QByteArrayList>

// "quillvane [URL…]" and "quillvane --action ID": becomes the running instance (owning Quillvane's
// name on the session bus), or hands its links to the instance that runs already.
namespace QuillvaneApp {

// Whether the arguments are for the application rather than a command.
bool isApplicationRequest(const QByteArrayList &arguments);

int run(int &argc, char **argv, const QByteArrayList &arguments);

} // namespace QuillvaneApp
