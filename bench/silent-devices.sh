#!/usr/bin/env bash
# Stand-ins for network printers that accept a connection and never answer:
# addresses 10.77.0.101 to 10.77.0.(100+MAX) (MAX default 16; three-digit last
# parts, which the service's device URI pattern accepts) in a network namespace of
# their own, each listening on 631 and 443, so the world's simulated printer
# keeps port 631. The kestrel-silent backend reports the first N of them as
# socket devices, N read from $KESTREL_WORLD_DIR/silent-devices at each
# discovery (none when the file is absent). Run inside the test world.
set -euo pipefail

max=${1:-16}
ns=kestrel-silent
count_file=$KESTREL_WORLD_DIR/silent-devices

ip netns add "$ns"
ip link add "$ns" type veth peer name silent0 netns "$ns"
ip addr add 10.77.0.254/24 dev "$ns"
ip link set "$ns" up
ip -n "$ns" link set lo up
ip -n "$ns" link set silent0 up
for i in $(seq "$max"); do
    ip -n "$ns" addr add "10.77.0.$((100 + i))/24" dev silent0
done

# Accepts every connection and keeps it open without a byte in reply.
(ip netns exec "$ns" /usr/bin/python3 -c '
import selectors, socket
listeners = []
for port in (631, 443):
    s = socket.socket()
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("", port))
    s.listen(128)
    listeners.append(s)
held = []
selector = selectors.DefaultSelector()
for s in listeners:
    selector.register(s, selectors.EVENT_READ)
while True:
    for key, _ in selector.select():
        held.append(key.fileobj.accept()[0])
' >/dev/null 2>&1 &)
for attempt in $(seq 500); do
    ip netns exec "$ns" ss -ltn | grep -q ':443 ' && break
    sleep 0.01
done

cat >/usr/lib/cups/backend/kestrel-silent <<BACKEND
#!/bin/sh
# Discovery only: reports the silent stand-ins of the test world.
[ \$# -eq 0 ] || exit 1
count=\$(cat '$count_file' 2>/dev/null || echo 0)
i=1
while [ "\$i" -le "\$count" ]; do
    echo "network socket://10.77.0.\$((100 + i)) \"Silent Printer \$i\" \"Silent Printer \$i\" \"\" \"\""
    i=\$((i + 1))
done
BACKEND
chmod 0755 /usr/lib/cups/backend/kestrel-silent
