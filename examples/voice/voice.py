#!/usr/bin/env python3
"""The component of voice.c in Python."""
import signal

import qelclient


def take(change, reply):
    if change.kind == qelclient.Kind.ENABLE and change.code == 13:
        reply.text = "no such hardware"
        return qelclient.Answer.REFUSED


with qelclient.Client("Voice", take) as client:
    signal.signal(signal.SIGTERM, lambda *_: client.stop())
    client.run()
    client.shutdown("good night")
