"""A headless Chromium, told what to do over a pipe; needs nothing but Python's own library."""
import base64
import json
import os
import shutil
import subprocess
import tempfile

PROGRAM = shutil.which("chromium")
DRAWN = """window.drawn = new Promise(resolve => new MutationObserver((changes, observer) => {
  if (!document.querySelector('#grid tr.row')) return;
  observer.disconnect();
  requestAnimationFrame(() => setTimeout(() => resolve(performance.now())));
}).observe(document, {childList: true, subtree: true}))"""


class Browser:
    def __init__(self):
        self.directory = tempfile.mkdtemp(prefix="qel-browser-")
        (read, self.to), (self.source, write) = os.pipe(), os.pipe()

        def connect():  # the browser reads descriptor 3 and writes 4
            high = [os.dup(fd) for fd in (read, write)]
            for fd, place in zip(high, (3, 4)):
                os.dup2(fd, place)
        command = [PROGRAM, "--headless=new", "--no-sandbox", "--disable-gpu", "--remote-debugging-pipe", "--hide-scrollbars",
                   "--disable-dev-shm-usage", "--no-first-run", f"--user-data-dir={self.directory}", "about:blank"]
        self.process = subprocess.Popen(command, preexec_fn=connect, close_fds=False, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        os.close(read)
        os.close(write)
        self.rest, self.number, self.session, self.said = b"", 0, None, []
        target = self.ask("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.ask("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.ask(domain + ".enable")

    def read(self):
        while b"\0" not in self.rest:
            part = os.read(self.source, 1 << 20)
            if not part:
                raise RuntimeError("the browser is gone")
            self.rest += part
        message, self.rest = self.rest.split(b"\0", 1)
        message = json.loads(message)
        if message.get("method") in ("Runtime.exceptionThrown", "Log.entryAdded"):
            self.said.append(message["params"])
        return message

    def ask(self, method, **params):
        self.number += 1
        message = {"id": self.number, "method": method, "params": params}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.to, json.dumps(message).encode() + b"\0")
        while (answer := self.read()).get("id") != self.number:
            pass
        if "error" in answer:
            raise RuntimeError(f"{method}: {answer['error']}")
        return answer["result"]

    def show(self, address, width=1280, height=900, scheme="light"):
        self.ask("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.ask("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
        self.ask("Page.navigate", url=address)
        while self.read().get("method") != "Page.loadEventFired":
            pass

    def drawn(self, address):
        """Milliseconds from the call of an address until the matrix is painted there."""
        known = self.ask("Page.addScriptToEvaluateOnNewDocument", source=DRAWN)["identifier"]
        self.show(address)
        self.ask("Page.removeScriptToEvaluateOnNewDocument", identifier=known)
        return self.run("window.drawn")

    def run(self, script):
        answer = self.ask("Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(str(answer["exceptionDetails"]))
        return answer["result"].get("value")

    def press(self, key, code=0, text=""):
        for kind in ("keyDown", "keyUp"):
            self.ask("Input.dispatchKeyEvent", type=kind, key=key, windowsVirtualKeyCode=code, text=text)

    def screenshot(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.ask("Page.captureScreenshot")["data"]))

    def close(self):
        self.process.terminate()
        self.process.wait()
        shutil.rmtree(self.directory, ignore_errors=True)
