#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Prints examples/edge_filter.rules: the filter of a provider's edge router, in the ClassBench format, highest
# precedence first. All addresses are set aside for documentation, private use or other special purposes.
#
#   own networks    198.51.100.0/24 (servers), 203.0.113.0/24 (customers), 192.0.2.0/24 (infrastructure)
set -euo pipefail

TCP=0x06/0xFF UDP=0x11/0xFF ICMP=0x01/0xFF GRE=0x2F/0xFF ESP=0x32/0xFF OSPF=0x59/0xFF ANY=0x00/0x00
ALL=0.0.0.0/0 PORTS="0 : 65535" HIGH="1024 : 65535"
SERVERS=198.51.100.0/24 CUSTOMERS=203.0.113.0/24 ROUTERS=192.0.2.0/24

# permit|deny SRC DST SPORTS DPORTS PROTO [FLAGS]
rule() { printf '@%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$2" "$3" "$4" "$5" "$6" "${7:-0x0000/0x0000}" "$1"; }
permit() { rule permit "$@"; }
deny() { rule deny "$@"; }
port() { echo "$1 : $1"; }

# Nobody outside has these addresses, nor ours: dropped before anything else is looked at.
spoofed_sources() {
  local net
  for net in 0.0.0.0/8 10.0.0.0/8 100.64.0.0/10 127.0.0.0/8 169.254.0.0/16 172.16.0.0/12 192.168.0.0/16 \
    198.18.0.0/15 224.0.0.0/4 240.0.0.0/4 $SERVERS $CUSTOMERS $ROUTERS; do
    deny $net $ALL "$PORTS" "$PORTS" $ANY
  done
}

# Routing sessions with the neighbours, then nothing else may reach the routers.
infrastructure() {
  local i
  for i in 1 5 9 13 17 21; do
    permit 192.0.2.$((128 + i))/32 192.0.2.$i/32 "$HIGH" "$(port 179)" $TCP
    permit 192.0.2.$((128 + i))/32 192.0.2.$i/32 "$(port 179)" "$HIGH" $TCP
    permit 192.0.2.$((128 + i))/32 192.0.2.$i/32 "$HIGH" "3784 : 3785" $UDP
  done
  permit 192.0.2.128/25 $ROUTERS "$PORTS" "$PORTS" $OSPF
  permit $ALL $ROUTERS "$PORTS" "33434 : 33534" $UDP
  permit $ALL $ROUTERS "$PORTS" "$PORTS" $ICMP
  deny $ALL $ROUTERS "$PORTS" "$PORTS" $ANY
}

# Packets that no conversation sends: both SYN and FIN, or no flag at all.
broken_tcp() {
  local net
  for net in $SERVERS $CUSTOMERS; do
    deny $ALL $net "$PORTS" "$PORTS" $TCP 0x0003/0x0003
    deny $ALL $net "$PORTS" "$PORTS" $TCP 0x0000/0x003F
  done
}

# Sources that misbehaved, toward everything we have.
block_list() {
  local i
  for i in 4 8 16 32 40 52 64 72 88 96 112 120 136 144 160 176 184 200 216 232; do
    deny 192.88.99.$i/30 $SERVERS "$PORTS" "$PORTS" $ANY
    deny 192.88.99.$i/30 $CUSTOMERS "$PORTS" "$PORTS" $ANY
  done
}

# server HOST PROTO PORT...: the services of one server, and the replies to what it asks itself.
server() {
  local host=198.51.100.$1 proto=$2 p
  shift 2
  for p in "$@"; do permit $ALL $host/32 "$HIGH" "$(port $p)" $proto; done
}
services() {
  local i
  for i in 10 11 12 13 14 15 16 17; do server $i $TCP 80 443; server $i $UDP 443; done
  for i in 25 26 27; do server $i $TCP 25 465 587 993; done
  for i in 53 54; do
    permit $ALL 198.51.100.$i/32 "$PORTS" "$(port 53)" $UDP
    server $i $TCP 53 853
  done
  for i in 60 61; do permit $ALL 198.51.100.$i/32 "$PORTS" "$(port 123)" $UDP; done
  for i in 80 81 82 83; do server $i $TCP 22 8443; done
  permit 203.0.113.0/25 198.51.100.90/32 "$HIGH" "$(port 5432)" $TCP
  permit 203.0.113.0/25 198.51.100.91/32 "$HIGH" "$(port 6379)" $TCP
  permit $ALL $SERVERS "$(port 53)" "$HIGH" $UDP
  permit $ALL $SERVERS "$PORTS" "$HIGH" $TCP 0x0010/0x0010
  permit $ALL $SERVERS "$PORTS" "$PORTS" $ICMP
  deny $ALL $SERVERS "$PORTS" "$PORTS" $ANY
}

# One customer a /29: what it offers to the world, its tunnels, answers to its own connections, then the rest.
customers() {
  local i net
  for ((i = 0; i < 256; i += 8)); do
    net=203.0.113.$i/29
    permit $ALL 203.0.113.$((i + 2))/32 "$HIGH" "$(port 443)" $TCP
    if ((i % 16 == 0)); then permit $ALL 203.0.113.$((i + 3))/32 "$HIGH" "$(port 25)" $TCP; fi
    if ((i % 24 == 0)); then
      permit $ALL 203.0.113.$((i + 1))/32 "$(port 500)" "$(port 500)" $UDP
      permit $ALL 203.0.113.$((i + 1))/32 "$PORTS" "$PORTS" $ESP
      permit $ALL 203.0.113.$((i + 1))/32 "$PORTS" "$PORTS" $GRE
    fi
    permit $ALL $net "$(port 53)" "$HIGH" $UDP
    permit $ALL $net "$PORTS" "$HIGH" $TCP 0x0010/0x0010
  done
  # Ports that amplify floods stay shut even where the customer would have them open.
  for i in 17 19 111 123 137 161 389 1900 5353 11211; do deny $ALL $CUSTOMERS "$(port $i)" "$PORTS" $UDP; done
  permit $ALL $CUSTOMERS "$PORTS" "$PORTS" $ICMP
  permit $ALL $CUSTOMERS "$HIGH" "$HIGH" $UDP
}

section() {
  echo "# ${1//_/ }"
  "$1"
}
section spoofed_sources
section infrastructure
section broken_tcp
section block_list
section services
section customers
echo "# everything else"
deny $ALL $ALL "$PORTS" "$PORTS" $ANY
