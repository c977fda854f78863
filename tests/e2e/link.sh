# Sourced behind service.sh: starts the service on one side of a link. The other side is a network namespace of its own,
# with the one interface "receiver". Commands run there with in_receiver.
unset XDG_RUNTIME_DIR # the folder of the real machine
unshare -n sleep 600 &
receiver_side=$!
within 5 sh -c "[ \"\$(readlink /proc/$receiver_side/ns/net)\" != \"\$(readlink /proc/self/ns/net)\" ]"

in_receiver() {
    nsenter -t "$receiver_side" -n "$@"
}

ip link add service type veth peer name receiver netns "$receiver_side"
ip addr add 10.77.0.1/24 dev service
ip link set service up
in_receiver ip addr add 10.77.0.2/24 dev receiver
in_receiver ip link set lo up
in_receiver ip link set receiver up
in_receiver ip route add 224.0.0.0/4 dev receiver
ip route replace 224.0.0.0/4 dev service
start_service
