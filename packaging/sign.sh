#!/bin/bash
# Signs a Windows program or package in place, with a certificate and its key.
#   KEYWARDEN_TIMESTAMP_URL  a time-stamping service; without it, the signature is valid only as long as
#                            the certificate
set -euo pipefail

if [ "$#" -ne 3 ]; then
    echo "usage: packaging/sign.sh CERT KEY FILE     (CERT and KEY: PEM)" >&2
    exit 2
fi
signed=$(mktemp -u)
trap 'rm -f "$signed"' EXIT
stamp=()
[ -z "${KEYWARDEN_TIMESTAMP_URL:-}" ] || stamp=(-ts "$KEYWARDEN_TIMESTAMP_URL")
osslsigncode sign -certs "$1" -key "$2" -n "Norvanta KeyWarden" -h sha256 "${stamp[@]}" \
    -in "$3" -out "$signed" >&2
cat "$signed" >"$3" # writing into the file keeps its mode
