#!/usr/bin/env bash
# Requests per second for GET /v1/reports/<slug>/ over HTTPS with 50 concurrent keep-alive connections (wrk).
# Usage: bench/kiv-service/get_report_rps.sh [seconds]   (KIV_SERVICE=path overrides the program)
# wrk has no certificate checking of its own, so the chain is proven with curl against the service's CA first.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
require wrk curl python3
duration=${1:-10}
start_service
slug=$(create_report "Benchmark" "IMG_0001.jpg" "$(printf x | sha256sum | cut -d' ' -f1)" | json_field '["slug"]')
api GET "/v1/reports/$slug/" >/dev/null  # verifies TLS against the CA file
echo "GET $base_url/v1/reports/$slug/ for ${duration}s, 50 connections, 2 threads"
wrk -t2 -c50 -d"${duration}s" --latency -H "Authorization: app-token $token" "$base_url/v1/reports/$slug/"
