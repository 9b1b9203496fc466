#!/bin/sh
# The frontmost application on sway (the real compositor, headless): two windows of known app ids,
# the focus moved with swaymsg; a script's link (no application of its own) goes by the focused
# one's rule, then by the other's, also after sway starts again. Quillvane's standard error (its
# system log here) names no link's query. sway refuses to run as root: as root, sway and Quillvane
# run as nobody (Quillvane trusts only its own user's socket). Usage: sway-focus.sh BUILD WINDOW
set -eu
if [ "$1" != inside ]; then
    root=$(mktemp -d /tmp/sway-focus-XXXXXX) && trap 'rm -rf "$root"' EXIT
    cmake --install "$1" --prefix "$root/prefix" >/dev/null
    cp "$2" "$root/mail-app" && cp "$2" "$root/chat-app" && cp "$0" "$root/test.sh"
    mkdir -m 700 "$root/run"
    as="" && [ "$(id -u)" != 0 ] || { chown -R 65534:65534 "$root"; as="setpriv --reuid=65534 --regid=65534 --clear-groups"; }
    $as dbus-run-session -- sh "$root/test.sh" inside "$root"
    exit
fi
root=$2 && apps="$2/data/applications" && qv="$2/prefix/bin/quillvane" && mkdir -p "$apps"
export HOME="$root" XDG_RUNTIME_DIR="$root/run" XDG_CONFIG_HOME="$root/config" \
    XDG_DATA_HOME="$root/data" XDG_STATE_HOME="$root/state" QT_QPA_PLATFORM=offscreen
waitfor() { i=0 && until "$@" >/dev/null 2>&1; do i=$((i + 1)) && [ $i -lt 300 ] || { echo "never: $*" && exit 1; } && sleep 0.1; done; }
for id in mail chat other; do
    printf '#!/bin/sh\necho "$1" >>"%s/%s.opened"\n' "$root" $id >"$root/$id-browser" && chmod +x "$root/$id-browser"
    printf '[Desktop Entry]\nType=Application\nName=%s\nExec=%s %%u\nMimeType=x-scheme-handler/https;\n' \
        $id "$root/$id-browser" >"$apps/$id-browser.desktop"
    printf '[Desktop Entry]\nType=Application\nName=%s app\nExec=%s/%s-app\n' $id "$root" $id >"$apps/$id-app.desktop"
done
rm "$apps/other-app.desktop" && update-desktop-database -q "$apps"
export SWAYSOCK="$root/run/sway.sock" # sway takes the name it is given, again when it starts again
sway_and_windows() {
    WLR_BACKENDS=headless WLR_LIBINPUT_NO_DEVICES=1 WLR_RENDERER=pixman sway -c /dev/null >>"$root/sway.log" 2>&1 &
    for id in mail chat; do
        waitfor swaymsg exec "QT_QPA_PLATFORM=wayland $root/$id-app"
        waitfor sh -c "swaymsg -t get_tree | grep -q '\"app_id\": \"$id-app\"'"
    done
}
opens() { # a script's link, $1's window in front (Quillvane told so $3 times): $1's rule applies
    swaymsg "[app_id=$1-app] focus" >/dev/null
    waitfor sh -c "[ \$(grep -c 'active app changed → .*($1-app)' '$XDG_RUNTIME_DIR/Quillvane.log') -ge $3 ]"
    sleep 1.6 # within 1.5 s of a link, the next goes where it went, whatever is in front
    sh -c "'$root/prefix/bin/quillvane-open' 'https://example.com/$2?token=t0k3n'"
    waitfor grep -qx "https://example.com/$2?token=t0k3n" "$root/$1.opened"
}
sway_and_windows
"$qv" >"$root/instance.log" 2>&1 &
qvpid=$! && trap "kill $qvpid || true; swaymsg exit >/dev/null 2>&1 || true" EXIT
waitfor "$qv" rules && "$qv" fallback other-browser >/dev/null
for id in mail chat; do "$qv" rule add --browser $id-browser --app $id-app >/dev/null; done
opens chat 1 1; opens mail 2 1
# sway ended and started again (chat's window in front): Quillvane follows the new one.
swaymsg exit >/dev/null 2>&1 || true # sway may end before it answers
waitfor sh -c '! test -S "$SWAYSOCK"'
sway_and_windows; opens chat 3 2
"$qv" doctor | grep -q "sway-focus: *works" || { echo "doctor: sway-focus does not work" && exit 1; }
if grep -q t0k3n "$root/instance.log"; then echo "the system log names a link's query" && exit 1; fi
[ -z "${SWAY_FOCUS_THEN:-}" ] || sh -c "$SWAY_FOCUS_THEN" sh "$qvpid" # bench/sway-idle.sh
