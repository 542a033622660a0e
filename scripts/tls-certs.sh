#!/usr/bin/env bash
# Makes a test certificate authority, a server certificate and one client certificate per
# role for the secure Modbus port, with the openssl command line. For trials and tests only:
# a device's certificates come from its owner's CA.
#
#   bash scripts/tls-certs.sh DIR [ROLE...]        (default roles: Operator Viewer)
#
# In DIR: ca.crt and ca.key (the CA), server.crt and server.key (CN and address localhost
# and 127.0.0.1), and client-<ROLE>.crt and .key for each role, the role in the extension
# 1.3.6.1.4.1.50316.802.1 (a UTF8String). Also client-none.* (no role), client-expired.*
# (expired in 2020) and, from a second CA, client-foreign.*, for trying refusals. Keys are
# made readable by their owner only; certificates are valid for 10 years. Keys are ECDSA
# P-256 unless TLS_KEY_TYPE=rsa asks for RSA 2048 (the TLS 1.2 suites without ECDHE, such as
# AES128-SHA256, need an RSA server key).
set -euo pipefail
[ $# -ge 1 ] || { sed -n 2,13p "$0"; exit 2; }
dir=$1
shift
roles=("$@")
[ ${#roles[@]} -gt 0 ] || roles=(Operator Viewer)
command -v openssl >/dev/null || { echo "tls-certs: FAILED: openssl is not installed" >&2; exit 1; }
mkdir -p "$dir"
cd "$dir"
umask 077
days=3650
role_oid=1.3.6.1.4.1.50316.802.1
case "${TLS_KEY_TYPE:-ec}" in
    ec) newkey=(-newkey ec -pkeyopt ec_paramgen_curve:P-256) ;;
    rsa) newkey=(-newkey rsa:2048) ;;
    *) echo "tls-certs: FAILED: TLS_KEY_TYPE is '$TLS_KEY_TYPE': use ec or rsa" >&2; exit 1 ;;
esac

ca() { # name subject
    openssl req -x509 "${newkey[@]}" -nodes -days $days \
        -subj "/CN=$2" -keyout "$1.key" -out "$1.crt" \
        -addext basicConstraints=critical,CA:true -addext keyUsage=critical,keyCertSign,cRLSign \
        2>/dev/null
}

# name subject ca extensions-file [x509 options...]
issue() {
    local name=$1 subject=$2 issuer=$3 ext=$4
    shift 4
    openssl req -new "${newkey[@]}" -nodes -subj "/CN=$subject" \
        -keyout "$name.key" -out "$name.csr" 2>/dev/null
    openssl x509 -req -in "$name.csr" -CA "$issuer.crt" -CAkey "$issuer.key" -CAcreateserial \
        -extfile "$ext" -out "$name.crt" "$@" 2>/dev/null
    rm -f "$name.csr"
}

client_ext() { # role (empty: none)
    {
        echo "basicConstraints=CA:false"
        echo "keyUsage=critical,digitalSignature"
        echo "extendedKeyUsage=clientAuth"
        if [ -n "$1" ]; then echo "$role_oid=ASN1:UTF8String:$1"; fi
    } >client.ext
}

ca ca "Modbus test CA"
cat >server.ext <<EOF
basicConstraints=CA:false
keyUsage=critical,digitalSignature
extendedKeyUsage=serverAuth
subjectAltName=DNS:localhost,IP:127.0.0.1
EOF
issue server localhost ca server.ext -days $days
for role in "${roles[@]}"; do
    client_ext "$role"
    issue "client-$role" "client $role" ca client.ext -days $days
done
client_ext ""
issue client-none "client without role" ca client.ext -days $days
client_ext Operator
# Expired: signed with a validity that ended long ago (x509 -req has no start date, so the
# CA signs it through "openssl ca" with fixed dates).
mkdir -p expired.db
: >expired.db/index.txt
cat >expired.cnf <<EOF
[ca]
default_ca = test
[test]
database = expired.db/index.txt
new_certs_dir = expired.db
serial = expired.db/serial
policy = any
default_md = sha256
[any]
commonName = supplied
EOF
echo 1000 >expired.db/serial
openssl req -new "${newkey[@]}" -nodes -subj "/CN=client expired" \
    -keyout client-expired.key -out client-expired.csr 2>/dev/null
openssl ca -batch -config expired.cnf -cert ca.crt -keyfile ca.key -in client-expired.csr \
    -out client-expired.crt -extfile client.ext -startdate 20200101000000Z \
    -enddate 20200102000000Z -notext 2>/dev/null
rm -rf expired.db expired.cnf client-expired.csr
ca foreign-ca "Some other CA"
issue client-foreign "client foreign" foreign-ca client.ext -days $days
rm -f client.ext server.ext ./*.srl
chmod 600 ./*.key
chmod 644 ./*.crt
echo "tls-certs: CA, server and clients (${roles[*]}, none, expired, foreign) in $(pwd)"
