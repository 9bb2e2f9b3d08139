# Runs inside the demo's private namespaces: $1 the daemon, $2 the records.
set -euo pipefail
bin=$1 records=$2

mount --make-rprivate /
# Stage the daemon and the records first: the build may live under /tmp.
mount -t tmpfs none /media
mkdir -p /media/demo /media/nand/mox_data
cp "$bin" /media/demo/mox_logd
cp "$records" /media/demo/attacks.txt
touch /media/demo/null
mount --bind /dev/null /media/demo/null
mount -t tmpfs none /tmp
mount -t tmpfs none /dev
touch /dev/null && mount --bind /media/demo/null /dev/null

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

section "stopping with SIGTERM"
kill -TERM "$pid"
for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
section "/tmp/mox/log/logd.log"
cat /tmp/mox/log/logd.log
