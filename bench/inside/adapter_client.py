"""A person at a debugger's front end, played by a script: sets a breakpoint and answers each stop.

Speaks the debug adapter protocol. Reads one line of JSON: host, port, file, lineno, condition, and the
answers to stops ("continue", "over", "out"), the last of which is repeated. Prints "ready" once the
breakpoint is set, and stays until its input ends.
"""

import itertools
import json
import os
import socket
import sys
import threading

REQUEST_OF_ANSWER = {"continue": "continue", "over": "next", "out": "stepOut"}


class Client:
    def __init__(self, host, port):
        self._file = socket.create_connection((host, port)).makefile("rwb")
        self._numbers = itertools.count(1)
        self._lock = threading.Lock()

    def send(self, command, **arguments):
        message = {"seq": next(self._numbers), "type": "request", "command": command, "arguments": arguments}
        body = json.dumps(message).encode()
        with self._lock:
            self._file.write(b"Content-Length: %d\r\n\r\n%s" % (len(body), body))
            self._file.flush()

    def receive(self):
        """The next message, or None when the other side has gone."""
        length = None
        while True:
            line = self._file.readline()
            if not line:
                return None
            if line == b"\r\n":
                return json.loads(self._file.read(length))
            name, value = line.split(b":")
            if name == b"Content-Length":
                length = int(value)


def converse(wanted):
    client = Client(wanted["host"], wanted["port"])
    client.send("initialize", adapterID="bench", pathFormat="path", linesStartAt1=True, columnsStartAt1=True)
    answers = wanted["answers"]
    while (message := client.receive()) is not None:
        what = message.get("event") or message.get("command")
        if message["type"] == "response" and not message["success"]:
            raise RuntimeError("{} failed: {}".format(what, message.get("message")))
        if message["type"] == "response" and what == "initialize":
            client.send("attach", justMyCode=False)
        elif what == "initialized":
            breakpoint = {"line": wanted["lineno"]}
            if wanted["condition"]:
                breakpoint["condition"] = wanted["condition"]
            client.send("setBreakpoints", source={"path": wanted["file"]}, breakpoints=[breakpoint])
        elif what == "setBreakpoints":
            client.send("configurationDone")
        elif what == "configurationDone":
            print("ready", flush=True)
        elif what == "stopped":
            client.send(REQUEST_OF_ANSWER[answers[0]], threadId=message["body"]["threadId"])
            answers = answers[1:] or answers


def leave_with_input():
    sys.stdin.read()
    os._exit(0)


def main():
    wanted = json.loads(sys.stdin.readline())
    threading.Thread(target=leave_with_input, daemon=True).start()
    converse(wanted)


main()
