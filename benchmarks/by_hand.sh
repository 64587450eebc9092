#!/bin/sh
# What somebody would write instead of the daemon: ADDRESS is that of the metadata document.
set -eu
PATH=/usr/bin:/bin
directory=/tmp/bench
download() {
  curl -sSf --connect-to ::127.0.0.1: --cacert /etc/ssl/certs/ca-certificates.crt "$@"
}
document=$(download "$1")
url=${document#*'"url": "'}
url=${url%%'"'*}
signature=${document#*'"signature": "'}
signature=${signature%%'"'*}
download -o "$directory/archive" "$url"
echo "$signature" | base64 -d >"$directory/decoded"
openssl dgst -sha256 -verify /etc/zelo/pubkeyprod.pem -signature "$directory/decoded" "$directory/archive" >/dev/null
tar -xzf "$directory/archive" -C "$directory"
"$directory/run.sh"
