# Sourced by the scripts that need BGP routers: starts BGP daemons on loopback addresses.
#
# One collector (127.0.0.1, AS 65000; gobgpd or FRR's bgpd) peers with any number of provider edges
# (127.0.0.10+N, next hop 10.255.N.N) and speaks BMP. No instance touches the system's routing table
# or a port below 1024. Everything a script starts here ends with it, also when it fails or is
# interrupted.

BGP_PORT=${BGP_PORT:-17900}
API_PORT=${API_PORT:-17950}
BMP_PORT=${BMP_PORT:-17990}

die() { echo "$(basename "$0"): $*" >&2; exit 1; }

for tool in gobgpd gobgp; do
  command -v $tool >/dev/null || die "$tool is missing: apt-get install gobgpd"
done

lab=$(mktemp -d)
lab_pids=()

lab_end() {
  local status=$?
  trap - EXIT
  [ ${#lab_pids[@]} -eq 0 ] || kill "${lab_pids[@]}" 2>/dev/null
  wait
  [ $status -eq 0 ] || [ ${#lab_pids[@]} -eq 0 ] || tail -n 5 "$lab"/*.log >&2
  rm -rf "$lab"
  exit $status
}
trap lab_end EXIT
trap 'exit 130' INT TERM

# Runs a command in the background, its output in a log, until the script ends.
lab_start() {
  local log=$1
  shift
  "$@" >"$lab/$log.log" 2>&1 </dev/null &
  lab_pids+=($!)
}

# Waits until a command succeeds; gives up after 30 seconds.
wait_for() {
  local what=$1 i
  shift
  for ((i = 0; i < 300; i++)); do
    "$@" >/dev/null 2>&1 && return 0
    sleep 0.1
  done
  die "waited in vain for $what"
}

# start_collector PEER_ADDRESS...: the router whose BMP stream is of interest.
start_collector() {
  {
    cat <<EOF
[global.config]
  as = 65000
  router-id = "10.255.0.1"
  port = $BGP_PORT
  local-address-list = ["127.0.0.1"]
[[bmp-servers]]
  [bmp-servers.config]
    address = "127.0.0.1"
    port = $BMP_PORT
    route-monitoring-policy = "all"
EOF
    local address
    for address; do
      cat <<EOF
[[neighbors]]
  [neighbors.config]
    neighbor-address = "$address"
    peer-as = 65000
  [neighbors.transport.config]
    local-address = "127.0.0.1"
    passive-mode = true
  [[neighbors.afi-safis]]
    [neighbors.afi-safis.config]
      afi-safi-name = "l3vpn-ipv4-unicast"
    [neighbors.afi-safis.add-paths.config]
      receive = true
EOF
    done
  } >"$lab/collector.toml"
  lab_start collector gobgpd -f "$lab/collector.toml" --api-hosts "127.0.0.1:$API_PORT"
  collector=$!
}

# start_frr_collector PEER_ADDRESS...: the same router, by FRR. It needs no other daemon of FRR.
start_frr_collector() {
  local bgpd=/usr/lib/frr/bgpd address
  [ -x $bgpd ] || die "$bgpd is missing: apt-get install frr"
  {
    echo "router bgp 65000"
    echo " bgp router-id 10.255.0.1"
    echo " no bgp default ipv4-unicast"
    for address; do
      echo " neighbor $address remote-as 65000"
      echo " neighbor $address passive"
      echo " neighbor $address update-source 127.0.0.1"
    done
    echo " address-family ipv4 vpn"
    for address; do
      echo "  neighbor $address activate"
      echo "  neighbor $address soft-reconfiguration inbound"
    done
    echo " exit-address-family"
    echo " bmp targets agent"
    echo "  bmp monitor ipv4 vpn pre-policy"
    echo "  bmp connect 127.0.0.1 port $BMP_PORT min-retry 100 max-retry 1000"
    echo " exit"
  } >"$lab/bgpd.conf"
  lab_start collector $bgpd -M bmp -f "$lab/bgpd.conf" -p "$BGP_PORT" -l 127.0.0.1 -n -Z -S -P 0 \
    --vty_socket "$lab" -i "$lab/bgpd.pid" -z "$lab/zserv" --log stdout
}

# start_pe N: a provider edge at 127.0.0.(10+N).
start_pe() {
  cat >"$lab/pe$1.toml" <<EOF
[global.config]
  as = 65000
  router-id = "10.255.$1.$1"
  port = -1
[[neighbors]]
  [neighbors.config]
    neighbor-address = "127.0.0.1"
    peer-as = 65000
  [neighbors.timers.config]
    connect-retry = 1
  [neighbors.transport.config]
    local-address = "127.0.0.$((10 + $1))"
    remote-port = $BGP_PORT
  [[neighbors.afi-safis]]
    [neighbors.afi-safis.config]
      afi-safi-name = "l3vpn-ipv4-unicast"
    [neighbors.afi-safis.add-paths.config]
      send-max = 4
EOF
  lab_start "pe$1" gobgpd -f "$lab/pe$1.toml" --api-hosts "127.0.0.$((10 + $1)):$API_PORT"
  declare -g "pe$1=$!"
}

# pes_established N...
pes_established() {
  local pe
  for pe; do
    gobgp -u "127.0.0.$((10 + pe))" -p "$API_PORT" neighbor | grep -q Establ || return 1
  done
}

# announce N PREFIX RD RT...: the provider edge announces a VPN route with itself as next hop.
announce() {
  local pe=$1 prefix=$2 rd=$3
  shift 3
  gobgp -u "127.0.0.$((10 + pe))" -p "$API_PORT" global rib -a vpnv4 add "$prefix" \
    label $((100 + pe)) rd "$rd" rt "$@" nexthop "10.255.$pe.$pe"
}

# withdraw N PREFIX RD
withdraw() {
  gobgp -u "127.0.0.$((10 + $1))" -p "$API_PORT" global rib -a vpnv4 del "$2" \
    label $((100 + $1)) rd "$3" nexthop "10.255.$1.$1"
}

collector_has() {
  gobgp -p "$API_PORT" global rib -a vpnv4 | grep -q "$1:$2 .*$3"
}
