#!/usr/bin/env bash
# Latency of a normal request while slow clients hold 1,000 connections open (500 TLS handshakes and 500
# request heads, each sending one byte a second), against kiv-service and, in the same run, nginx serving a
# small answer with the same certificate.
# Usage: bench/kiv-service/slow_connections.sh [handshakes] [heads]   (KIV_SERVICE=path overrides the program)
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
require curl nginx python3
export SLOW_HANDSHAKES=${1:-500} SLOW_HEADS=${2:-500}
ulimit -n "$(ulimit -Hn)"
start_service
slug=$(create_report "Slow clients" "IMG_0001.jpg" "$(printf x | sha256sum | cut -d' ' -f1)" | json_field '["slug"]')
start_nginx "default_type application/json; return 200 '{}';"
script="$(dirname "${BASH_SOURCE[0]}")/slow_connections.py"
echo "kiv-service:"
python3 "$script" 127.0.0.1 "${base_url##*:}" "/v1/reports/$slug/" "$ca_file" "app-token $token"
echo "nginx:"
python3 "$script" 127.0.0.1 "$nginx_port" / "$ca_file"
