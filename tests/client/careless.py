"""A component that does what examples/voice/voice.py does not; careless.script plays the daemon for it."""
import qelclient


class Careless(Exception):
    pass


def take(change, reply):
    if change.code == 1:
        raise Careless
    reply.text = "ü" * 300


def raises(code, function, *arguments):
    try:
        function(*arguments)
    except qelclient.Error as error:
        return error.code == code and str(error) != ""
    return False


traced = []
with qelclient.Client("Careless", take, held=[(7, 7)], trace=lambda *message: traced.append(message)) as client:
    assert raises(-2, qelclient.Client, "Other"), "one in a process"
    assert client.state == qelclient.State.SEEKING
    assert client.fetch(60) == [qelclient.Feature(7, 7), (8, 1)]
    try:
        client.monitor(60)
        client.run(60)
        assert False, "what a callback raises must come out"
    except Careless:
        assert client.state == qelclient.State.MONITORING
    assert client.wait(60) == 1
    assert client.features() == [(3, 1), (7, 7), (8, 1)]
    client.stop()
    assert raises(-6, client.wait, 60)
    assert client.shutdown() and not client.shutdown()
    assert {len(body) for sent, body in traced if not sent} == {36}
    assert {len(body) for sent, body in traced if sent} == {60, 52, 33, 533}
assert raises(-1, client.features), "it is closed"
