#!/usr/bin/env python3
"""A browser's side of native messaging, written from docs/browser-host.md alone.

Usage: browser_peer.py HOST URL

Asks HOST for a decision on URL, reports it, and says in one line: the state of the settings, the action, the outcome of the
report, and how the host ended."""

import json
import struct
import subprocess
import sys


class Host:
    def __init__(self, program):
        self.process = subprocess.Popen([program, "/manifest.json", "extension@sentrel.invalid"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)
        self.pieces = []

    def say(self, **message):
        text = json.dumps(message).encode()
        self.process.stdin.write(struct.pack("=I", len(text)) + text)
        self.process.stdin.flush()

    def hear(self):
        length, = struct.unpack("=I", self.process.stdout.read(4))
        message = json.loads(self.process.stdout.read(length).decode())
        if message["type"] != "piece":
            return message
        self.pieces.append(message["text"])
        if len(self.pieces) < message["count"]:
            return self.hear()
        text, self.pieces = "".join(self.pieces), []
        return json.loads(text)

    def hear_when(self, is_meant):
        while True:
            message = self.hear()
            if is_meant(message):
                return message

    def end(self):
        self.process.stdin.close()
        return self.process.wait()


def main(program, url):
    host = Host(program)
    host.say(type="hello", version=1, browser="firefox", rules=True, ratings=False)
    assert host.hear()["version"] == 1
    settings = host.hear_when(lambda message: message["type"] == "settings" and message["state"] == "current")
    host.say(type="decide", id=1, url=url, frame="main")
    decision = host.hear_when(lambda message: message.get("id") == 1)
    host.say(type="report", id=2, url=url, answer="none")
    reported = host.hear_when(lambda message: message.get("id") == 2)
    print(settings["state"], decision["action"], reported["outcome"], host.end())


main(*sys.argv[1:])
