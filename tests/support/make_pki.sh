#!/bin/sh
# Makes the test PKI in directory $1: a CA, a server certificate for
# 127.0.0.1 and one for the name localhost and ::1, site certificates with
# and without the web client usage (RSA and EC keys), and a stranger CA with
# its own server certificate.
set -eu
cd "$1"
q() { "$@" >/dev/null 2>&1; }

key() { # name [algorithm option]
    q openssl genpkey -algorithm "${2:-EC}" -pkeyopt "${3:-ec_paramgen_curve:P-256}" -out "$1.key"
}

ca() { # name
    key "$1"
    q openssl req -x509 -new -key "$1.key" -subj "/CN=$1" -days 2 -out "$1.pem"
}

cert() { # name ca extensions [algorithm option]
    key "$1" "${4:-EC}" "${5:-ec_paramgen_curve:P-256}"
    q openssl req -new -key "$1.key" -subj "/CN=$1" -out "$1.csr"
    printf '%s\n' "$3" > "$1.ext"
    q openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial \
        -days 2 -extfile "$1.ext" -out "$1.crt"
    cat "$1.crt" "$1.key" > "$1.pem"
}

ca ca
ca stranger-ca
cert server ca "subjectAltName=IP:127.0.0.1"
cert server-names ca "subjectAltName=DNS:localhost,IP:::1"
cert stranger-server stranger-ca "subjectAltName=IP:127.0.0.1"
cert site-rsa ca "basicConstraints=CA:FALSE" RSA rsa_keygen_bits:2048
cert site-ec ca "basicConstraints=CA:FALSE"
cert web-ec ca "extendedKeyUsage=clientAuth"
cert untrusted stranger-ca "extendedKeyUsage=clientAuth"
chmod 600 ./*.key ./*.pem
