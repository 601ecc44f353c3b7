#!/bin/sh
# Makes the certificates of the test servers, with fixed dates so that they can be committed:
#   ca.pem, ca.der    the test CA (2025 to 2049)
#   trusted           issued by the CA for 127.0.0.1 (also in subjectAltName)
#   untrusted         the same, but signed by itself
#   expired           issued by the CA, valid in 2020 only
#   wronghost         issued by the CA for wrong.example.invalid, nothing for 127.0.0.1
# Each server has <name>.pem and <name>.key. Run in this folder; it needs only the openssl command.
set -e
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
touch "$work/index"
echo 01 > "$work/serial"
cat > "$work/ca.cnf" <<END
[ca]
default_ca = test
[test]
database = $work/index
serial = $work/serial
new_certs_dir = $work
default_md = sha256
policy = any
unique_subject = no
[any]
organizationName = optional
commonName = supplied
[authority]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[server]
basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature,keyEncipherment
extendedKeyUsage = serverAuth
subjectAltName = IP:127.0.0.1
[otherhost]
basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature,keyEncipherment
extendedKeyUsage = serverAuth
END
sign() { # out key cn extensions start end [selfsign]
  openssl req -new -key "$2" -subj "/O=qorxmlu tests/CN=$3" -out "$work/request.csr"
  if [ -n "$7" ]; then
    set -- "$@" -selfsign -keyfile "$2"
  else
    set -- "$@" -cert ca.pem -keyfile "$work/ca.key"
  fi
  out=$1 extensions=$4 start=$5 end=$6
  shift 7
  openssl ca -batch -notext -config "$work/ca.cnf" -in "$work/request.csr" -extensions "$extensions" \
    -startdate "$start" -enddate "$end" -out "$out" "$@" 2>/dev/null
}
newkey() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1"; }
newkey "$work/ca.key"
sign ca.pem "$work/ca.key" "qorxmlu test CA" authority 20250101000000Z 20491231000000Z self
openssl x509 -in ca.pem -outform DER -out ca.der
for name in trusted untrusted expired wronghost; do newkey "$name.key"; done
sign trusted.pem trusted.key 127.0.0.1 server 20250101000000Z 20491231000000Z ""
sign untrusted.pem untrusted.key 127.0.0.1 server 20250101000000Z 20491231000000Z self
sign expired.pem expired.key 127.0.0.1 server 20200101000000Z 20201231000000Z ""
sign wronghost.pem wronghost.key wrong.example.invalid otherhost 20250101000000Z 20491231000000Z ""
