#!/usr/bin/env bash
# usm_get against Debian's snmpd, its output against snmpget's, for every auth x priv pair; then
# usm_agent queried by snmpget; both against pysnmp; usm_passwd against snmpd, snmpusm against
# usm_agent. Only 127.0.0.1, ports picked at run time, every process started here stopped by its
# pid on the way out. Exit 77 (skipped) without snmpd, snmpget, snmpusm; no pysnmp skips its pairs.
# usage: usm_interop.sh USM_GET USM_AGENT USM_PASSWD
set -u
get=$(realpath $1) agent=$(realpath $2) passwd=$(realpath $3) PATH=$PATH:/usr/sbin
py="/usr/bin/python3 $(realpath $(dirname $0))/usm_interop_pysnmp.py"
type snmpd snmpget snmpusm &>/dev/null || { echo "skipped: no snmpd, snmpget, snmpusm"; exit 77; }
dir=$(mktemp -d) daemon= failures=0
cd $dir
mkdir -p client/cert_indexes kc
# 0 when the daemon exits cleanly on SIGTERM.
stop() { kill $daemon; wait $daemon; local s=$?; daemon=; return $s; } 2>/dev/null
trap '[ -z "$daemon" ] || stop; rm -rf $dir' EXIT
# snmpget keeps its own state and reads its configuration from here only.
export SNMPCONFPATH=$dir SNMP_PERSISTENT_DIR=$dir/client HOME=$dir
echo maplesyrup >pw
echo maplesyrop >wrong
echo pancakes42 >new
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
ok() { [ $? = 0 ] && echo "ok: $*" || fail "$*"; } # by the status of the command before

# Every pair. MD5, SHA-1 and SHA-224 keys are too short for AES-256 (MD5 and SHA-1 for AES-192 too)
# and are lengthened, AES-192/AES-256 one way and AES-192-C/AES-256-C another; longer keys are cut.
pairs=({MD5,SHA,SHA-224,SHA-256,SHA-384,SHA-512}/{DES,AES,AES-192,AES-256,AES-192-C,AES-256-C})
s=1.3.6.1.2.1.1 # system
uptime="^.$s.3.0 = Timeticks: \([0-9]+\) [0-9]+:[0-9]{2}:[0-9]{2}\.[0-9]{2}$"

# A Net-SNMP tool or one of ours, then user auth priv, the files of the auth and priv passwords, then its arguments.
netsnmp() { $1 -m '' -v3 -l authPriv -u $2 -a $3 -x $4 -A $(<$5) -X $(<$6) 127.0.0.1:$port "${@:7}"; }
ours() { $1 --user $2 --auth $3 --priv $4 --auth-password-file $5 --priv-password-file $6 127.0.0.1:$port "${@:7}"; }
sget() { netsnmp snmpget "${@:1:5}" -On -r 1 -t 3 "${@:6}"; }
uget() { ours $get "$@"; }
# The engine ID the agent logged.
engine() { sed -n 's/.*engine ID \([0-9a-f]*\)$/\1/p' log; }
refused() { # what message command...: exit 1 with the message and no value
  local out
  out=$("${@:3}" 2>&1)
  [ $? = 1 ] && [[ $out == *"$2"* && $out != *" = "* ]] && echo "ok: $1" || fail "$1: [$out]"
}

# Runs "$@" (a function that execs a daemon on $port) until the daemon has bound 127.0.0.1:$port (a
# request sent before would wait out its timeout). A daemon whose port was taken exits; another
# port is tried.
start() {
  local bound
  for _ in {1..5}; do
    port=$((20000 + RANDOM % 40000))
    bound=$(printf '0100007F:%04X ' $port)
    grep -q "$bound" /proc/net/udp && continue
    "$@" >log 2>&1 &
    daemon=$!
    for _ in {1..200}; do
      kill -0 $daemon 2>/dev/null && ! grep -q "$bound" /proc/net/udp || break
      sleep 0.1
    done
    kill -0 $daemon 2>/dev/null && return
    stop
  done
  fail "no $*: $(<log)"
  return 1
}

# ---- usm_get against snmpd: values that stay put (strings, an OID, the engine ID as hex, an
# integer, a missing object), and sysUpTime's form. net-snmp's other spelling of a lengthened
# cipher (AES192, AES256C, ...) names the same protocol.
# User u$i has pair i, both passwords maplesyrup.
for i in "${!pairs[@]}"; do
  echo "rouser u$i authpriv"
  echo "createUser u$i ${pairs[i]/\// maplesyrup } maplesyrup"
done >users
snmpd_() { exec snmpd -f -Lo -C -c users --persistentDir=snmpd udp:127.0.0.1:$port; }
oids=($s.1.0 $s.2.0 1.3.6.1.6.3.10.2.1.1.0 1.3.6.1.6.3.10.2.1.2.0 $s.99.0)
if start snmpd_; then
  for i in "${!pairs[@]}"; do
    set -- ${pairs[i]/\// }
    for x in $2 $([ $1 = SHA ] && [ ${#2} -gt 3 ] && echo ${2//-/}); do
      want=$(sget u$i $1 $x pw pw "${oids[@]}" 2>&1)
      got=$(uget u$i $1 $x pw pw "${oids[@]}" $s.3.0 2>&1)
      [[ $want && $want = "${got%$'\n'*}" ]] || fail "usm_get $1 $x: [$got] [$want]"
      [[ ${got##*$'\n'} =~ $uptime ]] || fail "usm_get $1 $x uptime"
    done
  done
  refused "wrong auth" "Authentication failure" uget u0 MD5 DES wrong pw $s.1.0
  refused "wrong priv" "no response" uget u1 MD5 AES pw wrong $s.1.0
  refused "unknown user" "Unknown user name" uget nobody SHA AES pw pw $s.1.0
  stop
fi

# ---- usm_agent queried by snmpget, for every pair; a wrong auth password is refused, and
# SIGTERM ends the agent cleanly.
descr=".$s.1.0 = STRING: \"libwexcryptcpp example agent\""
agent_() { exec $agent --port $port --user alice --auth $1 --priv $2 --auth-password-file pw --priv-password-file pw; }
for pair in "${pairs[@]}"; do
  set -- ${pair/\// }
  start agent_ $1 $2 || continue
  out=$(sget alice $1 $2 pw pw $s.1.0 $s.3.0 2>&1)
  [[ ${out%%$'\n'*} = "$descr" && ${out#*$'\n'} =~ $uptime ]] || fail "agent $pair: [$out]"
  refused "agent $pair wrong auth" "Authentication failure" sget alice $1 $2 wrong pw $s.1.0
  stop || fail "agent $pair SIGTERM"
done

# The last agent again: a wrong priv password, an unknown user, usm_get, and a request stamped
# 100000 s off the agent's clock, which it must refuse with an authenticated notInTimeWindows
# report (snmpget then takes the agent's time from it and asks again); then its usmStats counts.
if start agent_ $1 $2; then
  refused "agent wrong priv" "Decryption error" sget alice $1 $2 pw wrong $s.1.0
  refused "agent unknown user" "Unknown user name" sget bob $1 $2 pw pw $s.1.0
  [ "$(uget alice $1 $2 pw pw $s.1.0 2>&1)" = "$descr" ] || fail "usm_get to agent"
  [ "$(sget alice $1 $2 pw pw -e 0x$(engine) -Z 1,100000 $s.1.0 2>&1)" = "$descr" ] || fail "late request"
  # usmStatsNotInTimeWindows, UnknownUserNames, WrongDigests, DecryptionErrors
  counts=$(sget alice $1 $2 pw pw 1.3.6.1.6.3.15.1.1.{2,3,5,6}.0 2>&1)
  [ "$(sed 's/.*Counter32: //' <<<"$counts" | tr -d '\n')" = 1101 ] || fail "usmStats: [$counts]"
  stop || fail "agent SIGTERM"
  grep -q "reports sent:.*notInTimeWindows 1 unknownUserNames 1" log || fail "counts on exit"
fi

# ---- pysnmp: usm_get against its agent, its manager against usm_agent. Net-SNMP has no 3DES; MD5
# keys are lengthened for AES-192/256, Blumenthal's way or Reeder's (-C).
if /usr/bin/python3 -c 'import pysnmp' 2>/dev/null; then
  pyagent() { exec $py agent $port alice $1 $2 maplesyrup; }
  for pair in {MD5,SHA-224,SHA-512}/3DES MD5/{AES-192,AES-256,AES-192-C,AES-256-C}; do
    set -- ${pair/\// }
    start pyagent $1 $2 && { [[ $(uget alice $1 $2 pw pw $s.1.0 2>&1) = ".$s.1.0 = STRING: \"PySNMP engine"* ]]
      ok "usm_get to pysnmp's agent, $pair"; stop; }
    start agent_ $1 $2 && { [[ $($py get $port alice $1 $2 maplesyrup $s.1.0 2>&1) = *"= libwexcryptcpp example agent" ]]
      ok "pysnmp's manager to usm_agent, $pair"; stop; }
  done
else
  echo "skipped the pysnmp pairs: no python3-pysnmp4"
fi

# ---- usm_passwd against snmpd, which changes the keys only of users it read back from its own
# file: u0 changes both passwords at once, u1 one after the other.
printf 'rwuser u%s authpriv\n' 0 1 >snmpd.conf
printf 'createUser u0 SHA maplesyrup AES maplesyrup\ncreateUser u1 SHA-256 maplesyrup AES-256-C maplesyrup\n' >kc/snmpd.conf
kc_() { SNMPCONFPATH=$dir:$dir/kc SNMP_PERSISTENT_DIR=$dir/kc exec snmpd -f -Lo udp:127.0.0.1:$port; }
upw() { ours $passwd "$@"; }
if start kc_ && { stop; start kc_; }; then
  upw u0 SHA AES pw pw --new-auth-password-file new --new-priv-password-file new &&
    upw u1 SHA-256 AES-256-C pw pw --new-auth-password-file new && upw u1 SHA-256 AES-256-C new pw --new-priv-password-file new
  ok "usm_passwd to snmpd"
  for user in u0/SHA/AES u1/SHA-256/AES-256-C; do
    set -- ${user//\// }
    [[ $(sget $1 $2 $3 new new $s.5.0 2>&1) = ".$s.5.0 = STRING: "* ]]; ok "snmpd $2 $3, new passwords"
    refused "snmpd $2 $3, old passwords" "Authentication failure" sget $1 $2 $3 pw pw $s.5.0
  done
  stop
fi

# ---- snmpusm passwd against usm_agent (usmUser*KeyChange when the user is named, usmUserOwn* else);
# then a Set it cannot do, and a KeyChange of the wrong length.
for pair in MD5/DES SHA/AES SHA-512/AES-256; do
  set -- ${pair/\// }
  start agent_ $1 $2 || continue
  netsnmp snmpusm alice $1 $2 pw pw passwd maplesyrup pancakes42 $([ $1 = SHA ] && echo alice) >/dev/null &&
    [ "$(sget alice $1 $2 new new $s.1.0 2>&1)" = "$descr" ]
  ok "snmpusm passwd to usm_agent, $pair"
  refused "usm_agent $pair, old passwords" "Authentication failure" sget alice $1 $2 pw pw $s.1.0
  # usmUserOwnAuthKeyChange's index: the engine ID's length and octets, then "alice"'s
  idx=$(eval echo .13$(engine | sed 's/../.$((16#&))/g').5.97.108.105.99.101)
  for want in "notWritable $s.1.0 s x" "wrongLength 1.3.6.1.6.3.15.1.2.2.1.7$idx x 00"; do
    set -- $1 $2 $want
    [[ $(netsnmp snmpset alice $1 $2 new new "${@:4}" 2>&1) = *"Reason: $3"* ]]; ok "usm_agent $pair, Set: $3"
  done
  stop
done
echo "$failures failure(s)"
[ $failures = 0 ]

