#!/bin/sh
# Configure refuses the keys a device must not ship: a sealing key that is
# not RSA or is shorter than 2048 bits, and in a Release build the
# development keys, unless MOX_ALLOW_DEV_KEYS says so.
set -u
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail=0
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 2>/dev/null | openssl pkey -pubout -out "$work/ec.pem"
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 2>/dev/null | openssl pkey -pubout -out "$work/short.pem"

# configure EXPECTED-STATUS MESSAGE-OR-EMPTY cmake-options...
configure() {
  want=$1 text=$2
  shift 2
  rm -rf "$work/b"
  out=$(cmake -S "$src" -B "$work/b" -DMOX_TESTS=OFF "$@" 2>&1)
  rc=$?
  if { [ "$want" = ok ] && [ $rc -ne 0 ]; } || { [ "$want" = refused ] && [ $rc -eq 0 ]; } ||
     ! printf '%s' "$out" | grep -q -- "$text"; then
    echo "FAIL: $* gave $rc, wanted $want with \"$text\":"; printf '%s\n' "$out" | tail -5
    fail=1
  fi
}
configure refused "is not an RSA public key" -DMOX_ATTACK_PUBKEY="$work/ec.pem"
configure refused "RSA of 1024 bits" -DMOX_ACCESS_PUBKEY="$work/short.pem"
configure refused "development key keys/dev/attack_public.pem" -DCMAKE_BUILD_TYPE=Release
configure ok "Generating done" -DCMAKE_BUILD_TYPE=Release -DMOX_ALLOW_DEV_KEYS=ON
exit $fail
