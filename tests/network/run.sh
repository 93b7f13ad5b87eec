#!/bin/sh
# run.sh <test program> [arguments]
# Runs a test program between two network namespaces of its own, "near" (where it runs) and "far",
# that a veth pair joins: 10.77.0.1 and fd77::1 near, 10.77.0.2 and fd77::2 far. The program finds
# their names in GCLTEST_NEAR and GCLTEST_FAR. Ends with 77, which means skipped, and a line that
# says why where this machine does not allow it.
set -u

skip()
{
    echo "SKIPPED: $1"
    exit 77
}

for tool in ip nft tc; do
    command -v "$tool" >/dev/null 2>&1 || skip "there is no '$tool' on this machine"
done

near="gcl-near-$$"
far="gcl-far-$$"
remove()
{
    ip netns delete "$near" 2>/dev/null
    ip netns delete "$far" 2>/dev/null
}
trap remove EXIT
trap 'exit 1' HUP INT TERM

{ ip netns add "$near" && ip netns add "$far"; } 2>/dev/null ||
    skip "network namespaces cannot be made here (are you root?)"
ip -n "$near" link add veth0 type veth peer name veth0 netns "$far" 2>/dev/null ||
    skip "veth pairs cannot be made here"
ip netns exec "$far" nft add table inet probe 2>/dev/null || skip "nftables cannot be used here"
ip netns exec "$far" nft delete table inet probe

set -e
ip -n "$near" address add 10.77.0.1/24 dev veth0
ip -n "$far" address add 10.77.0.2/24 dev veth0
for namespace in "$near" "$far"; do
    ip -n "$namespace" link set lo up
    ip -n "$namespace" link set veth0 up
done
ip -n "$near" address add fd77::1/64 dev veth0 nodad 2>/dev/null || true
ip -n "$far" address add fd77::2/64 dev veth0 nodad 2>/dev/null || true

GCLTEST_NEAR="$near" GCLTEST_FAR="$far" ip netns exec "$near" "$@"
