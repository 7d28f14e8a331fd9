"""Runs components of examples/protocol for test_convergence, which plays framework and clock: a line each."""
import sys

from component import Component, NOTIFY, MODIFY


def pairs(text):
    return {tuple(map(int, pair.split(":"))) for pair in text.split(",") if pair}


def start(handle, name, process, refuses, held):
    refuses = pairs(refuses)

    def told(kind, code, data, new):
        say("told", kind, code, data, new)
        return kind not in (NOTIFY, MODIFY) or (code, new if kind == MODIFY else data) not in refuses

    return Component(name, int(handle), int(process), lambda kind, body: say("send", kind, body.hex()), told,
                     pairs(held))


def say(*words):
    print(*words)


components = {}
for line in sys.stdin:
    command, handle, *rest = line[:-1].split(" ")
    if command == "start":
        components[handle] = start(handle, *rest)
        continue
    component = components[handle]
    for message in rest[2:]:
        kind, body = message.split(":")
        component.now = int(rest[0])
        component.received(int(kind), bytes.fromhex(body))
    due = component.tick(int(rest[0]), int(rest[1]))
    print("next", due, len(component.held), int(component.replaced), flush=True)
