"""A way between a client and a daemon over UDP on which datagrams are lost, late and doubled, and
on which strangers lie."""

import heapq
import random
import selectors
import socket
import struct
import threading
import time

MOST = 4138  # bytes of a datagram, docs/wire-formats.md
IDENTITY = slice(18, 26)  # of the request
IDLE_SECONDS = 2
MOST_CLIENTS = 300  # a process has 1024 descriptors

LOST, DOUBLED, LATE, LIES = 0.04, 0.05, 0.10, 0.05
LATEST_SECONDS = 0.2


class Proxy(threading.Thread):
    """Runs until close(). While `silent` is set nothing passes."""

    def __init__(self, port, seed):
        super().__init__(daemon=True)
        self.random = random.Random(seed)
        self.daemon_address = ("127.0.0.1", port)
        self.selector = selectors.DefaultSelector()
        self.front = self._socket(("127.0.0.1", 0), None)
        self.port = self.front.getsockname()[1]
        self.back = {}  # a client's address: [its socket to the daemon, when it was used last]
        self.waiting = []  # (when, number, send)
        self.number = 0
        self.looks_again = 0
        self.counts = {"passed": 0, "lost": 0, "doubled": 0, "late": 0, "lies": 0}
        self.silent = False
        self.over = False
        self.start()

    def close(self):
        self.over = True
        self.join()

    def run(self):
        while not self.over:
            wait = self.waiting[0][0] - time.monotonic() if self.waiting else 0.1
            for key, _ in self.selector.select(min(max(wait, 0), 0.1)):
                self._receive(key.fileobj, key.data)
            while self.waiting and self.waiting[0][0] <= time.monotonic():
                self._send(*heapq.heappop(self.waiting)[2])
            if time.monotonic() > self.looks_again:
                self._forget_idle()
        for sock in [self.front, *(entry[0] for entry in self.back.values())]:
            sock.close()
        self.selector.close()

    def _socket(self, address, client):
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.setblocking(False)
        sock.bind(address)
        self.selector.register(sock, selectors.EVENT_READ, client)
        return sock

    def _receive(self, sock, client):
        try:
            data, source = sock.recvfrom(MOST + 1)
        except OSError:
            return
        if client is not None:  # an answer
            self._pass_on(data, self.front, client)
            return
        if source not in self.back and len(self.back) == MOST_CLIENTS:
            self.counts["lost"] += 1
            return
        if source not in self.back:
            self.back[source] = [self._socket(("127.0.0.1", 0), source), 0]
        self.back[source][1] = time.monotonic()
        self._pass_on(data, self.back[source][0], self.daemon_address)

    def _pass_on(self, data, sock, to):
        if self.silent or self.random.random() < LOST:
            self.counts["lost"] += 1
            return
        self.counts["passed"] += 1
        self._deliver(data, sock, to)
        if self.random.random() < DOUBLED:
            self.counts["doubled"] += 1
            self._deliver(data, sock, to)
        if self.random.random() < LIES:
            self.counts["lies"] += 1
            self._deliver(lie(data, self.random), sock, to)

    def _deliver(self, data, sock, to):
        delay = 0
        if self.random.random() < LATE:
            self.counts["late"] += 1
            delay = self.random.uniform(0, LATEST_SECONDS)
        self.number += 1
        heapq.heappush(self.waiting, (time.monotonic() + delay, self.number, (data, sock, to)))

    def _send(self, data, sock, to):
        try:
            sock.sendto(data, to)
        except OSError:
            pass  # as lost as on any other way

    def _forget_idle(self):
        now = time.monotonic()
        self.looks_again = now + 0.5
        for client, (sock, used) in list(self.back.items()):
            if now - used > IDLE_SECONDS:
                self.selector.unregister(sock)
                sock.close()
                del self.back[client]


def lie(data, rng):
    """A datagram made out of a true one. Its identity is no request's: nothing in a datagram shows
    that it comes from the peer, so one with a true identity is an answer."""
    lying = bytearray(data)
    lying[IDENTITY] = rng.randbytes(8)
    kind = rng.randrange(5)
    if kind == 0:  # more bytes than there can be
        struct.pack_into("=H", lying, 8, rng.randrange(4097, 65536))
    elif kind == 1:  # neither a request nor an answer
        struct.pack_into("=I", lying, 10, rng.randrange(2, 2**32))
    elif kind == 2:  # cut before the identity
        del lying[rng.randrange(IDENTITY.start) :]
    elif kind == 3:  # other markers
        struct.pack_into("=HH", lying, 4, rng.randrange(65536), rng.randrange(2, 65536))
    else:  # noise
        lying[: IDENTITY.start] = rng.randbytes(IDENTITY.start)
    return bytes(lying)
