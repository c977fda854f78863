#!/usr/bin/env bash
# Another user who was first at the service's sockets gets nothing from root: no key, no text. A user who is named does.
# A file that the service's user cannot read is not submitted.
. "$(dirname "$0")/service.sh"
stranger=daemon
as_stranger=(env PATH=/usr/bin:/bin setpriv --reuid $stranger --regid $stranger --clear-groups)
cast=239.77.0.2:5000

# Writes down what comes on both sockets.
"${as_stranger[@]}" python3 - <<'END' >taken &
import os, select, socket, sys
sockets = []
for path in "/tmp/PCSTREAM.uds", "/tmp/PCVIEW.uds", "/tmp/PCMBC.uds":
    sockets.append(socket.socket(socket.AF_UNIX))
    sockets[-1].bind(path)
    os.chmod(path, 0o666)
    sockets[-1].listen(8)
while True:
    for ready in select.select(sockets, [], [])[0]:
        print(ready.accept()[0].recv(65536), flush=True)
END
server=$!
within 5 test -S /tmp/PCMBC.uds
refused 69 "^pccast: /tmp/PCSTREAM.uds is served by the user $stranger, who is neither you, root nor pccast; nothing was \
sent. If that service is yours, set PCCAST_SERVICE_USER to the user's name\$" "$pccast" relay 239.77.0.1:1 $cast --key 00112233
refused 69 "served by the user $stranger" "$pccast" message secret
refused 69 "served by the user $stranger" env PCCAST_SERVICE_USER=5432 "$pccast" stop 1:2:1:4000000000:5000:ts
refused 69 "served by the user $stranger" "$pccast" cancel 1:1:1:4000000000
refused 69 "^pccast: /tmp/PCVIEW.uds is served by the user $stranger, who" "$pccast" list
! grep -v "^b''$" taken || fail "the stranger got something"
kill $server
wait $server || true
rm /tmp/PC*.uds

# The same user's real service, believed because it is named.
"${as_stranger[@]}" "$pccast" serve >serve.log 2>&1 &
service=$!
within 10 grep -q 'serves casts' serve.log
export PCCAST_SERVICE_USER=$stranger
as_another=("${as_stranger[@]//$stranger/54322}")
foreign="/tmp/PCSTREAM.uds belongs to another user: to a service of theirs, or it is a file that one left. ss -xlp shows \
whether a service listens there; that user or root can submit requests to it\$"
refused 69 "^pccast: $foreign" "${as_another[@]}" "$pccast" relay 239.77.0.1:1 $cast
refused 69 "^pccast: $foreign" "${as_another[@]}" "$pccast" serve
refused 69 "^pccast: /tmp/PCVIEW.uds belongs to another user's service; that user or root can look at it\$" \
    "${as_another[@]}" "$pccast" list
cp "$samples/sample.ts" film.ts
chmod 700 .
refused 66 "^pccast: $PWD/film.ts: the service runs as the user $stranger, who may not enter $PWD; open it to that user, \
or put the file elsewhere\$" "$pccast" file film.ts --to $cast
chgrp $stranger . film.ts
chmod 710 .
chmod 600 film.ts
refused 66 "user $stranger, who may not read it" "$pccast" file film.ts --to $cast
chmod 640 film.ts
PCCAST_SERVICE_USER=$(id -u $stranger) "$pccast" file film.ts --to $cast
within 3 grep -q '^cast .*film.ts' serve.log
end_service TERM
