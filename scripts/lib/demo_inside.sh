# Runs inside the demo's private namespaces: $1 the daemon, $2 the records,
# $3 the mox_conf tool, $4 the release files, $5 mox_logdecode, $6 the
# development key pairs, $7 the tests' wall-clock shim.
set -euo pipefail
bin=$1 records=$2 conf_tool=$3 release=$4 decode=$5 keys=$6 shim=${7:-}

mount --make-rprivate /
# Stage the daemon and the records first: the build may live under /tmp.
mount -t tmpfs none /media
mkdir -p /media/demo /media/nand/mox_data
cp "$bin" /media/demo/mox_logd
cp "$records" /media/demo/attacks.txt
cp "$conf_tool" /media/demo/mox_conf
cp "$decode" /media/demo/mox_logdecode
cp -r "$keys" /media/demo/keys
if [ -n "$shim" ] && [ -f "$shim" ]; then cp "$shim" /media/demo/wallclock.so; fi
touch /media/demo/null
mount --bind /dev/null /media/demo/null
mount -t tmpfs none /tmp
mount -t tmpfs none /dev
touch /dev/null && mount --bind /media/demo/null /dev/null
ln -s /proc/self/fd /dev/fd

# The LAN: br0 at 192.168.1.1/24, so 192.168.1.x sources count as internal.
ip link set lo up
ip link add br0 type bridge
ip addr add 192.168.1.1/24 dev br0
ip link set br0 up

# Verbose log, two-second period.
printf 'mox_logd=1\nmox_logd_period=2\n' > /media/nand/mox_data/rzpz

# The router log device: a FIFO copied into a file as it comes (each line
# ends in a NUL byte); the shell holds it open so the reader never sees EOF.
mkfifo /dev/zvlog
exec 3<>/dev/zvlog
cat /dev/zvlog > /media/demo/router.raw &
reader=$!
trap 'kill $reader 2>/dev/null || true' EXIT

section() { printf '\n==== %s ====\n' "$*"; }

# The firmware makes /tmp/mox at boot; the lock file lives there.
mkdir -p /tmp/mox
section "starting mox_logd (period 2 s, br0 192.168.1.1/24)"
/media/demo/mox_logd
for _ in $(seq 50); do [ -S /tmp/mox/log/attack.sock ] && break; sleep 0.1; done
pid=$(tr -d '\0' < /tmp/mox/lock_writer.dat)
echo "daemon pid $pid"

section "sending the sample records"
while IFS= read -r line; do
  case "$line" in '#'*) echo "  ${line#\# }"; continue ;; esac
  printf '%s' "$line" | socat -u - UNIX-SENDTO:/tmp/mox/log/attack.sock
done < /media/demo/attacks.txt

sleep 3
section "router lines (/dev/zvlog)"
tr '\0' '\n' < /media/demo/router.raw | sed 's/^$/(empty line)/'
section "/tmp/mox/log/stat"
cat /tmp/mox/log/stat
section "/tmp/mox/log/day_stat (total, then day slots)"
cat /tmp/mox/log/day_stat
section "/tmp/mox/log/hour_stat"
cat /tmp/mox/log/hour_stat

section "two protected websites with mox_conf"
# The release files travel inside mox_conf, signed and enciphered.
/media/demo/mox_conf release verify
/media/demo/mox_conf release install
/media/demo/mox_conf proxy add "shop 192.168.1.1:8080 127.0.0.1:8081"
/media/demo/mox_conf proxy add "blog https://0.0.0.0:8443 127.0.0.1:8082 --protect=monitor"
/media/demo/mox_conf set fixed_key demo-fixed-key
/media/demo/mox_conf set cluster_key demo-cluster-key
echo "stored websites:"
/media/demo/mox_conf proxy list | sed 's/^/  /'
/media/demo/mox_conf generate all
section "/tmp/mox/release/nginx/website_upstreams.conf"
cat /tmp/mox/release/nginx/website_upstreams.conf

section "shipping: a local collector and a few access records"
# The collector: every TCP connection on 127.0.0.1:6514 appended to a file,
# as a receiver would get it off the wire.
socat -u TCP-LISTEN:6514,bind=127.0.0.1,fork,reuseaddr OPEN:/media/demo/collector.raw,creat,append &
collector=$!
trap 'kill $reader $collector 2>/dev/null || true' EXIT
for _ in $(seq 50); do ss -ltn 2>/dev/null | grep -q '127.0.0.1:6514' && break; sleep 0.1; done
/media/demo/mox_conf set logserver "127.0.0.1:6514 600"
kill -HUP "$pid"
sleep 0.5
for path in / /login /shop/cart /blog/2026/11/hello; do
  printf '<190>nginx: 192.168.1.50 - - "GET %s HTTP/1.1" 200 512' "$path" |
    socat -u - UNIX-SENDTO:/tmp/mox/log/access.sock
done
for _ in $(seq 50); do [ -s /media/demo/collector.raw ] && break; sleep 0.1; done
sleep 0.5
echo "decoded by mox_logdecode:"
/media/demo/mox_logdecode -k /media/demo/keys/access_private.pem /media/demo/collector.raw | sed 's/^/  /' || true

section "stopping with SIGTERM"
kill -TERM "$pid"
for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
grep 'logd loop stop' /tmp/mox/log/logd.log

section "one attack report: the daemon again, with a wall clock running 40000 times fast"
# Reports leave when UTC days have finished; the test suite's wall-clock
# shim lets days pass in seconds while every wait of the daemon stays real.
# Today's counts are loaded from the files the first run wrote.
: > /media/demo/collector.raw
if [ -f /media/demo/wallclock.so ]; then
  # The shim's record: real origin, fake origin (both now, in ns), rate.
  perl -e 'my $t = int(`date +%s%N`); print pack("q<q<q<", $t, $t, 40000)' > /media/demo/wallclock
  LD_PRELOAD=/media/demo/wallclock.so MOX_WALLCLOCK=/media/demo/wallclock /media/demo/mox_logd
  sleep 1
  pid=$(tr -d '\0' < /tmp/mox/lock_writer.dat)
  decode_reports() {
    /media/demo/mox_logdecode -k /media/demo/keys/attack_private.pem /media/demo/collector.raw \
      2>/dev/null > /media/demo/reports.txt || true
  }
  for _ in $(seq 150); do
    decode_reports
    grep -q '"timestamp"' /media/demo/reports.txt && break
    sleep 0.1
  done
  echo "decoded by mox_logdecode: one report per finished day (today's holds the sample attacks):"
  sed -n '1,2s/^/  /p' /media/demo/reports.txt
  kill -TERM "$pid"
  for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
else
  echo "(the wall-clock shim was not built: skipped)"
fi

section "/tmp/mox/log/logd.log"
cat /tmp/mox/log/logd.log
