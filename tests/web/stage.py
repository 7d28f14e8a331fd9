"""A private daemon with hostile components, and an incident: one refuses, another dies, a list is refused."""
import os
import subprocess
import tempfile
import time

HOSTILE = "</script><!--\""  # a component's name, of 16 bytes at most
LIST = """count = 3
[[feature]]
code = 161
data = 1
components = ["Gateway", "Voice"]
[[feature]]
code = 202
data = 1
components = ["Gateway", '</script><!--"']
[[feature]]
code = 203
data = 1
components = ["Voice", "Absent"]
"""
NAMES = "161,<img src=x onerror=document.title=1>\n202,</script><script>document.title=2</script>\n203,& ]]> <!--\u061c\u200b\n"


class Stage:
    def __init__(self, qelctl, qelserver):
        self.qelctl, self.kept = qelctl, tempfile.TemporaryDirectory(prefix="qel-web-")
        self.directory, self.started = self.kept.name, []
        os.environ |= {"QEL_RUNTIME_DIR": self.file("run"), "QEL_LOG_FILE": "/dev/null", "QEL_DIAG": "off",
                       "QEL_FEATURE_LIST": self.file("features.toml"), "QEL_DESCRIPTION": self.file("names")}
        self.put("features.toml", LIST)
        self.put("names", NAMES)
        self.qelserver = qelserver

    def file(self, name):
        return self.directory + "/" + name

    def put(self, name, text):
        with open(self.file(name) + ".new", "w", encoding="utf-8") as file:
            file.write(text)
        os.rename(self.file(name) + ".new", self.file(name))

    def start(self, *command, **how):
        self.started.append(subprocess.Popen(command, **{"stdout": subprocess.DEVNULL, **how}))
        return self.started[-1]

    def look(self, qelweb, listen="127.0.0.1:0"):
        """A qelweb, and its address without the slash at the end."""
        process = self.start(qelweb, "--listen", listen, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        return process, process.stdout.readline().decode().split()[1].rstrip("/")

    def tell(self, *words):
        return subprocess.run([self.qelctl, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def until(self, is_true, what):
        end = time.monotonic() + 300
        while not is_true():
            if time.monotonic() > end:
                raise RuntimeError("it did not come to it: " + what)
            time.sleep(0.2)

    def begin_daemon(self):
        self.daemon = self.start(self.qelserver, "-run")
        self.until(lambda: self.tell("list", "-q").returncode == 0, "the daemon answers")

    def begin(self):
        self.begin_daemon()
        component = [self.qelctl, "component", "-q", "--fetch", "--monitor"]
        self.start(*component, "Gateway", "--refuse", "161")
        self.start(*component, b"a\\b\n\xff\xfe")
        self.start(*component, HOSTILE)
        voice = self.start(*component, "Voice")
        self.until(lambda: self.tell("wait", "Voice", "-q", "--timeout", "1").returncode == 0, "Voice has its features")
        return voice

    # All that a list says is told again with the next one, which Gateway then refuses.
    def incident(self, voice):
        self.put("features.toml", LIST.replace("data = 1", "data = 2", 1))
        self.until(lambda: self.tell("wait", "Gateway", "--until", "settled", "-q", "--timeout", "1").returncode == 0 and
                   self.tell("status", "Gateway", "-q").returncode == 3, "Gateway refuses")
        voice.kill()
        voice.wait()
        self.put("features.toml", LIST.replace("code = 203", "cod = 203"))
        self.until(lambda: b"file was refused" in self.tell("status").stdout and b"dead since" in self.tell("status").stdout,
                   "Voice is dead, and the list refused")

    def end(self):
        for process in self.started:
            if process.poll() is None:
                process.terminate()
            process.wait()
        self.kept.cleanup()
