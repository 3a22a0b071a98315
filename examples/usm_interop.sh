#!/usr/bin/env bash
# usm_get against Debian's snmpd, its output against snmpget's, for every auth x priv pair;
# then usm_agent queried by snmpget. Only 127.0.0.1, ports picked at run time, every process
# started here stopped by its pid on the way out. Exit 77 (skipped) without snmpd and snmpget.
# usage: usm_interop.sh USM_GET USM_AGENT
set -u
get=$1
agent=$2
PATH=$PATH:/usr/sbin
if ! command -v snmpd >/dev/null || ! command -v snmpget >/dev/null; then
  echo "skipped: snmpd and snmpget are not installed (apt-get install snmpd snmp)"
  exit 77
fi

dir=$(mktemp -d)
daemon= # the one daemon running, if any
stop() { # 0 when it exits cleanly on SIGTERM
  local pid=$daemon status
  daemon=
  kill "$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  status=$?
  return "$status"
}
cleanup() {
  [ -z "$daemon" ] || stop
  rm -rf "$dir"
}
trap cleanup EXIT
# snmpget keeps its own state and reads its configuration from here only.
export SNMPCONFPATH=$dir SNMP_PERSISTENT_DIR=$dir/client HOME=$dir
printf 'maplesyrup\n' >"$dir/pw"
printf 'maplesyrop\n' >"$dir/wrong"

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# auth priv: every pair. MD5, SHA-1 and SHA-224 keys are too short for AES-256 (MD5 and SHA-1 for
# AES-192 too) and are lengthened, AES-192/AES-256 one way and AES-192-C/AES-256-C another; the longer
# keys are only cut. The first two pairs must stay MD5 DES and MD5 AES (users u1 and u2 below).
pairs=()
for auth in MD5 SHA SHA-224 SHA-256 SHA-384 SHA-512; do
  for priv in DES AES AES-192 AES-256 AES-192-C AES-256-C; do pairs+=("$auth $priv"); done
done

snmpget_() { # user auth priv authpw privpw port oids...
  local user=$1 auth=$2 priv=$3 apw=$4 ppw=$5 port=$6
  shift 6
  snmpget -m '' -v3 -On -l authPriv -u "$user" -a "$auth" -A "$apw" -x "$priv" -X "$ppw" -r 1 -t 3 \
    "127.0.0.1:$port" "$@"
}

# Runs the function $1 (which execs a daemon on $port) in the background until the daemon has bound
# 127.0.0.1:$port and answers snmpget as user $2 with auth $3 and priv $4 (snmpget is asked only then:
# a request to a port nobody has bound yet just waits out its timeout). A daemon whose port was
# taken exits, and another port is tried.
start() {
  local try bound
  for try in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 40000))
    bound=$(printf '0100007F:%04X ' "$port")
    grep -q "$bound" /proc/net/udp && continue
    "$1" >"$dir/daemon.log" 2>&1 &
    daemon=$!
    for _ in $(seq 200); do
      kill -0 "$daemon" 2>/dev/null || break
      grep -q "$bound" /proc/net/udp && break
      sleep 0.1
    done
    kill -0 "$daemon" 2>/dev/null &&
      snmpget_ "$2" "$3" "$4" maplesyrup maplesyrup "$port" 1.3.6.1.2.1.1.1.0 >/dev/null 2>&1 && return 0
    stop
  done
  echo "FAIL: could not start $1 for $2 $3 $4"; cat "$dir/daemon.log"
  exit 1
}

# ---- usm_get against snmpd ----
conf=$dir/snmpd.conf
{
  echo "agentAddress udp:127.0.0.1:@PORT@"
  echo "rouser u0 authpriv"
  echo "createUser u0 SHA \"maplesyrup\" AES \"maplesyrup\""
  n=1
  for pair in "${pairs[@]}"; do
    set -- $pair
    echo "rouser u$n authpriv"
    echo "createUser u$n $1 \"maplesyrup\" $2 \"maplesyrup\""
    n=$((n + 1))
  done
} >"$conf.in"
mkdir -p "$dir/snmpd"
snmpd_() {
  sed "s/@PORT@/$port/" "$conf.in" >"$conf"
  exec snmpd -f -Lo -C -c "$conf" --persistentDir="$dir/snmpd" -p "$dir/snmpd.pid"
}
start snmpd_ u0 SHA AES

# Values that stay put: strings, an OID, the engine ID as hex, an integer, a missing object.
oids=(1.3.6.1.2.1.1.1.0 1.3.6.1.2.1.1.2.0 1.3.6.1.6.3.10.2.1.1.0 1.3.6.1.6.3.10.2.1.2.0 1.3.6.1.2.1.1.99.0)
usm_get_() { # user auth priv authfile privfile oids...
  local user=$1 auth=$2 priv=$3 apw=$4 ppw=$5
  shift 5
  "$get" --user "$user" --auth "$auth" --auth-password-file "$apw" --priv "$priv" --priv-password-file "$ppw" \
    "127.0.0.1:$port" "$@"
}
n=1
for pair in "${pairs[@]}"; do
  set -- $pair
  expected=$(snmpget_ "u$n" "$1" "$2" maplesyrup maplesyrup "$port" "${oids[@]}" 2>&1)
  actual=$(usm_get_ "u$n" "$1" "$2" "$dir/pw" "$dir/pw" "${oids[@]}" 2>&1)
  [ -n "$expected" ] && [ "$expected" = "$actual" ] || fail "usm_get $pair: got [$actual], snmpget says [$expected]"
  uptime=$(usm_get_ "u$n" "$1" "$2" "$dir/pw" "$dir/pw" 1.3.6.1.2.1.1.3.0 2>&1)
  [[ $uptime =~ ^\.1\.3\.6\.1\.2\.1\.1\.3\.0\ =\ Timeticks:\ \([0-9]+\)\ [0-9]+:[0-9]{2}:[0-9]{2}\.[0-9]{2}$ ]] ||
    fail "usm_get $pair sysUpTime: [$uptime]"
  n=$((n + 1))
done
echo "usm_get: ${#pairs[@]} pairs compared with snmpget"

# net-snmp's other spellings of the lengthened ciphers (AES192, AES256C, ...) name the same protocols.
n=1
for pair in "${pairs[@]}"; do
  set -- $pair
  other=${2//-/}
  if [ "$1" = SHA ] && [ "${other#AES}" != "$other" ] && [ "$other" != AES ]; then
    expected=$(snmpget_ "u$n" "$1" "$other" maplesyrup maplesyrup "$port" 1.3.6.1.2.1.1.1.0 2>&1)
    actual=$(usm_get_ "u$n" "$1" "$other" "$dir/pw" "$dir/pw" 1.3.6.1.2.1.1.1.0 2>&1)
    [ -n "$expected" ] && [ "$expected" = "$actual" ] || fail "usm_get $1 $other: got [$actual], snmpget says [$expected]"
  fi
  n=$((n + 1))
done

refused() { # what expected-message command...
  local what=$1 message=$2 out status
  shift 2
  out=$("$@" 2>&1)
  status=$?
  [ "$status" -eq 1 ] && [[ $out == *"$message"* ]] && [[ $out != *" = "* ]] ||
    fail "$what: exit $status, [$out]"
}
refused "wrong auth password" "Authentication failure" usm_get_ u1 MD5 DES "$dir/wrong" "$dir/pw" 1.3.6.1.2.1.1.1.0
refused "wrong priv password" "no response" usm_get_ u2 MD5 AES "$dir/pw" "$dir/wrong" 1.3.6.1.2.1.1.1.0
refused "unknown user" "Unknown user name" usm_get_ nobody SHA AES "$dir/pw" "$dir/pw" 1.3.6.1.2.1.1.1.0
stop

# ---- usm_agent queried by snmpget ----
uptime_re='^\.1\.3\.6\.1\.2\.1\.1\.3\.0 = Timeticks: \([0-9]+\) [0-9]+:[0-9]{2}:[0-9]{2}\.[0-9]{2}$'
descr='.1.3.6.1.2.1.1.1.0 = STRING: "libwexcryptcpp example agent"'
agent_() {
  exec "$agent" --port "$port" --user alice --auth "$auth" --auth-password-file "$dir/pw" --priv "$priv" \
    --priv-password-file "$dir/pw"
}
for pair in "${pairs[@]}"; do
  set -- $pair
  auth=$1 priv=$2
  start agent_ alice "$1" "$2"
  out=$(snmpget_ alice "$1" "$2" maplesyrup maplesyrup "$port" 1.3.6.1.2.1.1.1.0 1.3.6.1.2.1.1.3.0 2>&1)
  { [ "$(sed -n 1p <<<"$out")" = "$descr" ] && [[ $(sed -n 2p <<<"$out") =~ $uptime_re ]]; } ||
    fail "usm_agent $pair: [$out]"
  refused "usm_agent $pair, wrong auth password" "Authentication failure" \
    snmpget_ alice "$1" "$2" maplesyrop maplesyrup "$port" 1.3.6.1.2.1.1.1.0
  stop || fail "usm_agent $pair did not stop cleanly on SIGTERM"
done
echo "usm_agent: ${#pairs[@]} pairs queried by snmpget"

# The last agent again: usm_get, a wrong priv password, an unknown user, and a request stamped 100000 s
# off the agent's clock, which it must refuse with an authenticated notInTimeWindows report
# (snmpget then takes the agent's time from it and asks again).
start agent_ alice "$1" "$2"
refused "usm_agent, wrong priv password" "Decryption error" \
  snmpget_ alice "$1" "$2" maplesyrup maplesyrop "$port" 1.3.6.1.2.1.1.1.0
refused "usm_agent, unknown user" "Unknown user name" \
  snmpget_ bob "$1" "$2" maplesyrup maplesyrup "$port" 1.3.6.1.2.1.1.1.0
mine=$(usm_get_ alice "$1" "$2" "$dir/pw" "$dir/pw" 1.3.6.1.2.1.1.1.0 2>&1)
[ "$mine" = "$descr" ] || fail "usm_get against usm_agent: [$mine]"
engine=$(sed -n 's/.*engine ID \([0-9a-f]*\)$/\1/p' "$dir/daemon.log")
late=$(snmpget_ alice "$1" "$2" maplesyrup maplesyrup "$port" -e "0x$engine" -Z 1,100000 1.3.6.1.2.1.1.1.0 2>&1)
[ "$late" = "$descr" ] || fail "usm_agent after a late request: [$late]"
counts=$(snmpget_ alice "$1" "$2" maplesyrup maplesyrup "$port" 1.3.6.1.6.3.15.1.1.{2,3,5,6}.0 2>&1)
expected_counts=".1.3.6.1.6.3.15.1.1.2.0 = Counter32: 1
.1.3.6.1.6.3.15.1.1.3.0 = Counter32: 1
.1.3.6.1.6.3.15.1.1.5.0 = Counter32: 0
.1.3.6.1.6.3.15.1.1.6.0 = Counter32: 1"
[ "$counts" = "$expected_counts" ] || fail "usm_agent usmStats: [$counts]"
stop || fail "usm_agent did not stop cleanly on SIGTERM"
grep -q "reports sent:.*notInTimeWindows 1 unknownUserNames 1" "$dir/daemon.log" || fail "usm_agent's counts on exit"

echo "$failures failure(s)"
[ "$failures" -eq 0 ]
