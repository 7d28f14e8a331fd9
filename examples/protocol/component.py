"""A component in plain Python: docs/protocol.md, and nothing of the library.

`Component` knows no socket and no clock. Its owner hands it what arrives, `received(type, body)`, and calls
`tick(now, daemon)` after that, and at the time that tick returns; it sends by `send(type, body)`. Times are
milliseconds, `daemon` is the handle of the process "qelserver", 0 while there is none. `told(kind, code, data,
new)` carries a change out; what it answers is the reply: True, carried out, False, refused.
"""
import random
import struct

COMPONENTS, LOOKING = 6, 8  # types of the framework
ANSWER, NOTIFY, MODIFY, DISABLE, OVERDUE = range(5)
ANNOUNCE, INIT_LIST, GET_FEATURE, START_MONITOR, WRITE_REPLY = (0, 0), (0, 1), (0, 2), (0, 3), (1, 5)
HOLDINGS, PAIRS = 16, 17
HELD, REFUSED = 1, 2
WORD64 = 2**64 - 1


def digest(pairs, kind):
    total = 0
    for code, data in pairs:
        x = (code << 32) + data + kind * 0x9E3779B97F4A7C15 & WORD64
        x = (x ^ x >> 30) * 0xBF58476D1CE4E5B9 & WORD64
        x = (x ^ x >> 27) * 0x94D049BB133111EB & WORD64
        total += x ^ x >> 31
    return total & WORD64


class Question:
    def __init__(self, number, code, tag, now, talk, then):
        self.number, self.code, self.tag, self.asked, self.talk, self.then = number, code, tag, now, talk, then
        self.deadline = now + (4000 if code is not None else 20000)
        self.records = []


class Component:
    def __init__(self, name, handle, process, send, told, held=()):
        self.name, self.handle, self.process, self.send_out, self.told = name, handle, process, send, told
        self.held, self.refused = set(held), set()
        self.now = self.daemon = self.greeted = self.tag = self.talk = self.vain = 0
        self.monitoring = self.replaced = self.again = self.can_be_asked = False
        self.start_over(announced=False)
        self.compare_at = self.sent = self.deadline = 0
        self.equal = None  # digests, ours and the daemon's, that differ for good

    def start_over(self, announced=True):
        """From step 2 on."""
        if not announced:
            self.queue = []  # notifications that await their reply
        self.pending = self.question = None  # (class and sub-type, tag, pair) that awaits its answer
        self.next = ANNOUNCE
        self.monitoring, self.missing = False, None

    # Sending

    def send(self, kind, body, pair=None):
        self.tag = self.tag + 1 & 0xFFFFFFFF
        self.talk += 1
        self.pending, self.sent = (kind, self.tag, pair), self.now
        self.deadline = self.now + int(60000 * 2**self.vain * random.uniform(1, 1.25))
        header = struct.pack(">6I", 0, 24 + len(body), *kind, self.tag, self.handle)
        self.send_out(COMPONENTS, header + body)

    def request(self, kind):
        # Pairs only in the first announcement to a daemon: later, a disable may be under way.
        first = kind == ANNOUNCE and self.greeted != self.daemon
        pairs = sorted(self.held)[:100] if first else []
        body = struct.pack(">I20sI", self.process, self.name.encode(), len(pairs))
        self.send(kind, body + b"".join(struct.pack(">2I", *pair) for pair in pairs))

    def ask(self, number, then, code=None):
        self.tag = self.tag + 1 & 0xFFFFFFFF
        self.question = Question(number, code, self.tag, self.now, self.talk, then)
        self.ask_page(bytes(16))

    def ask_page(self, cursor):
        q = self.question
        body = struct.pack(">3I16s2I20s", 1, q.number, q.tag, cursor, 2 if q.code is None else 3, q.code or 0,
                           self.name.encode())
        self.send_out(LOOKING, body)

    # Time

    def tick(self, now, daemon):
        """Does what is due; returns the time by which to call again."""
        self.now = now
        if daemon != self.daemon:
            self.daemon, self.vain, self.can_be_asked = daemon, 0, True
            self.start_over(announced=False)
        if self.replaced or not daemon:
            return now + 500
        if self.pending and now >= self.deadline:
            self.vain = min(self.vain + 1, 6)
            self.start_over()
        if self.question and now >= self.question.deadline:
            question, self.question = self.question, None
            if question.code is not None:
                self.doubt(5000)
                question.then(None)
        self.go_on()
        if self.may_ask() and self.pending and now >= self.sent + 45000:
            self.ask(HOLDINGS, self.compare)
        elif self.may_ask() and self.monitoring and now >= self.compare_at:
            self.compare_at = now + 60000
            self.ask(HOLDINGS, self.compare)
        return now + 500  # the daemon is looked up twice a second

    def may_ask(self):
        return self.question is None and self.can_be_asked

    def doubt(self, within=2000):
        self.compare_at = min(self.compare_at, self.now + within)

    def go_on(self):
        """Sends what comes next, once nothing is under way: replies before requests."""
        if self.pending or self.question and self.question.code is not None:
            return
        if self.queue and self.greeted == self.daemon:
            self.reply(*self.queue.pop(0))
        elif self.next:
            self.request(self.next)

    # Receiving. Only what the daemon's handle sent comes here.

    def received(self, message_type, body):
        if self.replaced:
            return
        if message_type == LOOKING:
            self.answered_question(body)
        elif message_type == COMPONENTS and len(body) >= 36:
            self.talk += 1
            kind, tag, code, data, extra = struct.unpack(">8xI4xI4x3I", body[:36])
            if kind == ANSWER:
                self.answered(tag, (code, data))
            elif kind in (NOTIFY, MODIFY, DISABLE):
                self.queue.append((kind, code, data, extra))
            elif kind == OVERDUE:
                self.overdue(code)
        self.go_on()

    def overdue(self, code):
        """Nothing more to reply to; but a disable and a modification do not come again."""
        for change in [c for c in self.queue if c[1] == code][:1]:
            self.queue.remove(change)
            if change[0] != NOTIFY:
                self.carry_out(*change, None)
        self.doubt()

    def answered(self, tag, pair):
        if not self.pending or self.pending[1] != tag:
            return
        kind, _, expected = self.pending
        self.pending, self.vain = None, 0
        if kind == WRITE_REPLY:
            if pair != expected:
                self.doubt()
        elif kind == ANNOUNCE:
            if self.greeted != self.daemon:
                self.greeted, self.queue = self.daemon, []
            self.next = INIT_LIST
        elif kind == INIT_LIST:
            self.next, self.pages = GET_FEATURE, set()
        elif kind == GET_FEATURE and pair != (0, 0):
            self.pages.add(pair)
            self.queue = [change for change in self.queue if change[1] != pair[0]]  # settled by the page
            self.enable(pair)
        elif kind == GET_FEATURE:
            self.fetched()
        elif kind == START_MONITOR:
            self.next, self.monitoring, self.compare_at = None, True, self.now + 3000

    def fetched(self):
        lacking = self.held - self.pages
        if lacking and self.missing is None:  # a page may have been missed: all once more
            self.missing, self.next = lacking, ANNOUNCE
            return
        for pair in lacking & (self.missing or set()):
            self.drop(pair)
        self.next = START_MONITOR

    # What is held

    def enable(self, pair):
        if pair in self.held or self.told(NOTIFY, *pair, 0):
            self.held.add(pair)
            self.refused.discard(pair)
            return True
        self.refused.add(pair)
        return False

    def drop(self, pair):
        self.refused.discard(pair)
        if pair in self.held:
            self.held.remove(pair)
            self.told(DISABLE, *pair, 0)

    def modify(self, old, new):
        if old not in self.held or new in self.held:
            self.drop(old)
            return self.enable(new)
        if not self.told(MODIFY, *old, new[1]):
            self.refused.add(new)
            return False
        self.held.remove(old)
        self.held.add(new)
        self.refused -= {old, new}
        return True

    def reply(self, kind, code, data, extra):
        values = {value for held, value in self.held if held == code}

        def finish(in_force):
            done = self.carry_out(kind, code, data, extra, in_force)
            self.send(WRITE_REPLY, struct.pack(">2Ix", 0, 1 if done else 0), (code, data))

        if values and data not in values and self.can_be_asked:
            self.doubt(60000 if self.question is None else 5000)
            self.ask(PAIRS, lambda q: finish(q and {record[1:3] for record in q.records}), code)
        else:
            finish(None)

    def carry_out(self, kind, code, data, extra, in_force):
        for pair in [] if in_force is None else [p for p in self.held if p[0] == code and p not in in_force]:
            self.drop(pair)
        if kind == DISABLE:
            self.drop((code, data))
            return True
        return self.modify((code, data), (code, extra)) if kind == MODIFY else self.enable((code, data))

    # Comparing

    def answered_question(self, body):
        q = self.question
        if q is None or len(body) < 40 or struct.unpack(">3I", body[:12]) != (1, q.number, q.tag):
            return
        result, count, more = struct.unpack(">3I", body[12:24])
        at = 40
        for _ in range(count if result == 0 else 0):
            length, text = struct.unpack(">2I", body[at:at + 8])
            layout = ">Q6IQ" if q.number == HOLDINGS else ">Q4I"
            q.records.append(struct.unpack(layout, body[at:at + struct.calcsize(layout)]))
            at += length + text
        if result == 0 and more:
            q.deadline = self.now + (4000 if q.code is not None else 20000)
            self.ask_page(body[24:40])
            return
        self.question = None
        if result == 2 and q.code is None:
            self.ask(q.number, q.then)
        elif result != 0:
            self.can_be_asked = result != 1 and self.can_be_asked
            if q.code is not None:
                q.then(None)
        elif self.pending and self.sent <= q.asked and self.now >= self.sent + 45000:
            self.start_over()  # the daemon answers in order: what was asked before is lost
        else:
            q.then(q)

    def compare(self, q):
        if not self.monitoring:
            return
        _, handle, _, gone, monitors, _, _, _ = q.records[-1]
        under_way = sum(record[6] for record in q.records)
        theirs = sum(record[7] for record in q.records) & WORD64
        mine = digest(self.held, HELD) + digest(self.refused, REFUSED) & WORD64
        if handle not in (0, self.handle) and not gone:
            self.replaced = True
        elif handle != self.handle or not monitors:
            self.start_over()
        elif under_way or self.talk != q.talk or self.pending or self.queue:
            self.doubt(5000)
        elif mine == theirs or self.equal == (mine, theirs):
            self.again = False
        elif self.again:
            self.equal, self.again = (mine, theirs), False
        else:
            self.ask(PAIRS, self.take_over)

    def take_over(self, q):
        in_force = {record[1:3] for record in q.records}
        if self.talk != q.talk or any(record[4] for record in q.records):
            self.doubt(5000)
            return
        for pair in (self.held | self.refused) - in_force:
            self.drop(pair)
        for pair in in_force - self.held - self.refused:
            self.enable(pair)
        self.again = True
        self.doubt(0)
