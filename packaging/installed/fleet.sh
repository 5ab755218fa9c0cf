#!/usr/bin/env bash
# Makes a broker with TLS on loopback, and enrols this machine with it. The broker has a name too, broker.fleet.
set -euo pipefail
mkdir -p /fleet && cd /fleet
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout ca.key -out ca.pem -days 2 -subj /CN=fleet 2>/dev/null
openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout broker.key -out broker.csr -subj /CN=127.0.0.1 2>/dev/null
openssl x509 -req -in broker.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -out broker.pem 2>/dev/null \
    -extfile <(echo subjectAltName=IP:127.0.0.1,DNS:broker.fleet)
chmod 644 ca.pem broker.pem; chown mosquitto broker.key; chmod 755 /fleet
printf 'listener 8883 127.0.0.1\nallow_anonymous true\ncafile /fleet/ca.pem\ncertfile /fleet/broker.pem\nkeyfile /fleet/broker.key\nuser mosquitto\n' > conf
mosquitto -d -c conf
install -m 0644 ca.pem /etc/sentrel/fleet-ca.pem
printf '{"broker": {"host": "127.0.0.1", "port": 8883, "tls": {"ca": "/etc/sentrel/fleet-ca.pem"}}, "site": "demo", "machine": "desk-1"}\n' > agent.json
install -m 0644 -o sentrel -g sentrel agent.json /usr/local/Orvanta/hvb/config/agent.json
