#pragma once

#include <QByteArrayList>

// "quillvane [URL…]": becomes the running instance (owning Quillvane's name on
// the session bus), or hands its links to the instance that runs already.
namespace QuillvaneApp {

int run(int &argc, char **argv, const QByteArrayList &arguments);

} // namespace QuillvaneApp
