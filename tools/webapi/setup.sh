#!/usr/bin/env bash
# Sets up the reference web API and runs it in the foreground on 127.0.0.1.
#
#   setup.sh packages
#       installs the player packages pinned in package-lock.json (npm ci)
#       when they are missing
#   setup.sh serve --build DIR --media DIR --port PORT --state DIR [--break-segments]
#       makes a machine root in STATE with the transcoder launchers of the
#       build, writes the web server's configuration there and runs lighttpd
#       (not as a daemon) until it is signalled. --break-segments serves every
#       HLS segment cut short, to prove that the player tests notice.
#       Started as root it runs as the NAS does: lighttpd as "nobody", its
#       requests as "nobody" with root saved (a set-user-ID copy of the CGI
#       program), so the library raises only where it must. The library's
#       log lines land in STATE/root/var/log/liborvovte.log as well.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

if [[ ${1:-} == packages ]]; then
  [[ -d $here/node_modules/hls.js && -d $here/node_modules/dashjs && -d $here/node_modules/mpegts.js &&
    -d $here/node_modules/playwright-core ]] || (cd "$here" && npm ci --no-audit --no-fund --loglevel=error)
  exit 0
fi

[[ ${1:-} == serve ]] || { sed -n '2,16p' "$0" >&2; exit 2; }
shift
build= media= port= state= break_segments=0
while (($#)); do
  case $1 in
    --build) build=$(cd "$2" && pwd); shift 2 ;;
    --media) media=$(cd "$2" && pwd); shift 2 ;;
    --port) port=$2; shift 2 ;;
    --state) state=$2; shift 2 ;;
    --break-segments) break_segments=1; shift ;;
    *) echo "setup.sh: unknown option $1" >&2; exit 2 ;;
  esac
done
[[ -n $build && -n $media && -n $port && -n $state ]] || { echo "setup.sh: missing option" >&2; exit 2; }
mkdir -p "$state"
state=$(cd "$state" && pwd)

# The machine root: a generic two-core x86 box with one data volume, and the
# launchers where the NAS keeps its transcoders.
root=$state/root
mkdir -p "$root/tmp/Reelhall" "$root/run" "$root/volume1" "$root/etc.defaults" "$root/proc" \
  "$root/var/packages/Reelhall/etc" "$root/var/packages/Reelhall/target/bin"
echo 'unique="reelbox_x86_1019"' > "$root/etc.defaults/orvoinfo.conf"
echo 'support_codec_dts="no"' > "$root/var/packages/Reelhall/etc/codecs.conf"
for cpu in 0 1; do
  printf 'processor\t: %d\nvendor_id\t: GenuineIntel\ncpu cores\t: 2\nbogomips\t: 4800.00\n\n' $cpu
done > "$root/proc/cpuinfo"
ln -sfn "$build/nas/launchers/ffmpeg-launcher" "$root/var/packages/Reelhall/target/bin/ffmpeg"
ln -sfn "$build/nas/launchers/gst-launcher" "$root/var/packages/Reelhall/target/bin/gst-launch-1.0"

# The library appends its lines to this file once it exists; root's
# monitors and the requests' user both write it.
mkdir -p "$root/var/log"
touch "$root/var/log/liborvovte.log" "$state/requests.log"
chmod 0666 "$root/var/log/liborvovte.log" "$state/requests.log"

# What the web server's user reads: the page, its players, the profiles and
# the media. Under root that user is "nobody", and a checkout in a private
# folder (root's home, say) is out of its reach: what it reads is staged
# under the state folder, the media only when "nobody" cannot read them
# where they are (copied with their modes: a file of root's alone stays so).
page=$here/player libraries=$here/node_modules profiles=$here/../../nas/profiles
if ((EUID == 0)); then
  served=$state/served
  rm -rf "$served"
  (
    umask 022
    mkdir -p "$served"
    cp -r "$here/player" "$served/player"
    cp -r "$here/../../nas/profiles" "$served/profiles"
    for library in hls.js/dist/hls.min.js dashjs/dist/modern/umd/dash.all.min.js \
      dashjs/dist/modern/umd/dash.mss.min.js mpegts.js/dist/mpegts.js; do
      install -D -m 0644 "$here/node_modules/$library" "$served/lib/$library"
    done
    if ! runuser -u nobody -- test -r "$media" -a -x "$media"; then
      cp -a "$media" "$served/media"
      chmod o+rx "$served/media"
    fi
  )
  page=$served/player libraries=$served/lib profiles=$served/profiles
  [[ -d $served/media ]] && media=$served/media
  chmod o+x "$state" "$(dirname "$state")"
  runuser -u nobody -- test -r "$page/index.html" ||
    { echo "setup.sh: \"nobody\", the web server's user, cannot reach $state" >&2; exit 1; }
fi

# What every request is told: where the machine and the media are, and the
# programs it runs.
environment=(
  "PATH=/usr/local/bin:/usr/bin:/bin"
  "ORVOVTE_MACHINE_ROOT=$root"
  "WEBAPI_MEDIA_DIR=$media"
  "WEBAPI_PROFILE_DIR=$profiles"
  "WEBAPI_SUBTITLE_SERVICE=$build/nas/subtitle-service"
  "WEBAPI_LOG=$state/requests.log"
  "WEBAPI_BREAK_SEGMENTS=$break_segments"
)

# Every endpoint is the one CGI program under its own name.
mkdir -p "$state/api"
cgi=$build/tools/webapi/webapi-cgi
user_lines=
if ((EUID == 0)); then
  # A set-user-ID root gate, run by an unprivileged server: the request
  # runs as "nobody" with root saved, as on the NAS.
  cp "$build/tools/webapi/webapi-request-gate" "$state/api/request-gate"
  # Only the server's group may run it.
  chown root:nogroup "$state/api/request-gate"
  chmod 4750 "$state/api/request-gate"
  # The gate takes these from root's file, not from its caller.
  printf '%s\n' "${environment[@]}" > "$state/api/request-gate.env"
  chmod 0644 "$state/api/request-gate.env"
  cgi=$state/api/request-gate
  user_lines='server.username = "nobody"
server.groupname = "nogroup"'
  # Where the unprivileged requests make their sessions, and the way to the
  # programs (a scratch folder is often private to its owner).
  chmod 1777 "$root/tmp/Reelhall" "$root/volume1" "$root/run"
  touch "$state/server.log"
  chown nobody "$state/server.log"
fi
for endpoint in files open stream close subtitle; do
  ln -sfn "$cgi" "$state/api/$endpoint"
done

cat > "$state/lighttpd.conf" <<CONF
server.modules = ("mod_alias", "mod_cgi", "mod_setenv", "mod_staticfile")
server.document-root = "$page"
server.bind = "127.0.0.1"
server.port = $port
server.errorlog = "$state/server.log"
server.upload-dirs = ("$state")
$user_lines
# Segments are sent as they are produced; a request may wait a minute for one.
server.stream-response-body = 2
server.max-write-idle = 360
index-file.names = ("index.html")
mimetype.assign = (".html" => "text/html; charset=utf-8", ".js" => "text/javascript",
                   ".mjs" => "text/javascript", ".map" => "application/json", ".css" => "text/css")
alias.url = ("/api/" => "$state/api/", "/lib/" => "$libraries/")
\$HTTP["url"] =~ "^/api/" { cgi.assign = ("" => "") }
setenv.add-environment = ($(for variable in "${environment[@]}"; do
  printf '\n  "%s" => "%s",' "${variable%%=*}" "${variable#*=}"; done)
)
CONF
exec lighttpd -D -f "$state/lighttpd.conf"
