# Debian and RPM packages of Quillvane installed under /usr, made by
# scripts/package (cpack -G DEB, cpack -G RPM) from a Release build.
#
# The packages install no cache of their own: the desktop database, the icon
# cache and the manual page index are refreshed by the triggers that the
# distributions' desktop-file-utils, icon themes and man-db hold on those
# folders. Removing a package leaves only the users' own settings and history.
set(CPACK_PACKAGE_NAME quillvane)
set(CPACK_PACKAGE_VENDOR "The Quillvane developers")
set(CPACK_PACKAGE_CONTACT "The Quillvane developers <maintainers@vorpa.work>")
set(CPACK_PACKAGE_HOMEPAGE_URL "https://vorpa.work/quillvane")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "opens every link in the browser your rules choose")
# In lines that Debian's tools show as they are (at most 80 characters).
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
    "Quillvane becomes the desktop's default web browser and sends each link on"
    "to the browser you want: by the application that opened it, by the link's"
    "address, or both, optionally in a chosen browser profile or a private"
    "window. It removes tracking parameters, takes links out of redirect"
    "wrappers, expands short links, hands meeting, music and chat links to the"
    "services' own apps, and keeps a history of what it forwarded. It lives in"
    "the tray, has a settings window, and can be driven from scripts over D-Bus"
    "and its command line.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB RPM)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION web)
# The libraries the programs link, as dpkg-shlibdeps finds them; and what Qt
# loads at run time, which no library names: the display's platform plugins
# and the SVG reader of the tray's icons.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins, libqt6svg6")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS
    "desktop-file-utils, hicolor-icon-theme, dbus-user-session, qt6-wayland, xdg-utils")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "xdg-desktop-portal")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
# The browsers' host manifests in /etc are the administrator's to change.
file(CONFIGURE OUTPUT "${CMAKE_BINARY_DIR}/package/conffiles" CONTENT
"/etc/chromium/native-messaging-hosts/work.vorpa.quillvane.json
")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${CMAKE_BINARY_DIR}/package/conffiles")

set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE "Proprietary")
set(CPACK_RPM_PACKAGE_GROUP "Applications/Internet")
set(CPACK_RPM_PACKAGE_URL "${CPACK_PACKAGE_HOMEPAGE_URL}")
# rpmbuild finds the libraries the programs need by their sonames.
set(CPACK_RPM_PACKAGE_AUTOREQ ON)
set(CPACK_RPM_PACKAGE_AUTOPROV OFF)
set(CPACK_RPM_PACKAGE_REQUIRES "qt6-qtsvg")
# Folders that belong to the system, not to this package.
list(APPEND CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /usr/share/applications /usr/share/metainfo /usr/share/icons /usr/share/icons/hicolor
    /usr/share/icons/hicolor/scalable /usr/share/icons/hicolor/scalable/apps
    /usr/share/dbus-1 /usr/share/dbus-1/services /usr/share/dbus-1/interfaces
    /usr/share/bash-completion /usr/share/bash-completion/completions /usr/share/zsh
    /usr/share/zsh/site-functions /usr/share/man /usr/share/man/man1 /etc /usr/lib)
set(CPACK_RPM_USER_FILELIST
    "%config(noreplace) /etc/chromium/native-messaging-hosts/work.vorpa.quillvane.json")

include(CPack)
