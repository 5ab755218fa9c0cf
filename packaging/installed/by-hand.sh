#!/usr/bin/env bash
# An installation as docs/operations.md has one made by hand, with users of its own; it has run, and its programs have ended.
# The programs lie below /programs.
set -euo pipefail
export PATH=/programs/usr/sbin:/programs/usr/bin:$PATH
hvb=/usr/local/Orvanta/hvb; var=/usr/local/Orvanta/Sentrel/var; shared=/Users/Shared/.orvanta
for user in watcher post; do useradd --system --user-group $user; done
install -d -m 0755 -o watcher -g watcher $shared $var $hvb/config $hvb/config/Sentrel
install -d -m 0755 -o post -g post $hvb/var
sed 's/information/warning/' /programs/usr/share/sentrel/HVConfig.example.xml > $hvb/config/Sentrel/HVConfig.xml
printf '{"broker": {"host": "127.0.0.1", "port": 1}, "site": "demo", "machine": "desk-9"}\n' > $hvb/config/agent.json
chown watcher: $hvb/config/Sentrel/HVConfig.xml $hvb/config/agent.json
hvbd --print-bus-config --daemon-user watcher --hub-user post > $hvb/config/hub-bus.conf
sentrelctl settings init
setpriv --reuid=post --regid=post --clear-groups dbus-daemon --nofork --config-file=$hvb/config/hub-bus.conf & bus=$!
until [ -S $hvb/var/hvbdsocket64 ]; do sleep 0.05; done
setpriv --reuid=post --regid=post --clear-groups hvbd & hub=$!
setpriv --reuid=watcher --regid=watcher --clear-groups sentrel-settings-keeper & keeper=$!
setpriv --reuid=watcher --regid=watcher --clear-groups sentreld & daemon=$!
for i in $(seq 100); do sentrelctl hub ping > /dev/null 2>&1 && break; sleep 0.1; done
sentrelctl list block http://byhand.example/
sentrelctl event send --url http://byhand.example/x
for i in $(seq 100); do sentrelctl log --json=short | grep -q byhand && break; sleep 0.1; done
kill $daemon; wait $daemon || true
kill $keeper $hub; wait $keeper $hub || true
kill $bus
