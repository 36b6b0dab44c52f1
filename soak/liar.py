#!/usr/bin/env python3
"""Opens many sessions with HDC servers and ends of the device manager's channel at once, says
nothing, nonsense, too little or too much there, and goes.
Usage: liar.py DIRECTORY_OF_SOCKETS SECONDS SEED"""

import pathlib
import random
import socket
import struct
import sys
import time

SESSIONS = 10  # with each
COUNTED = "hdc-0"
HEADER = 30  # bytes of an HDC frame, docs/wire-formats.md


def lie(rng, is_counted):
    """None for silence. What announces too much or is no request is not answered, and its session
    stays until room is wanted (docs/platform.md): whose descriptors are counted is spared that."""
    text = rng.randbytes(rng.randrange(200))
    announced = rng.choice([0, len(text), len(text) + 1, 4096])
    frame = rng.randbytes(HEADER - 6) + struct.pack("=IH", 0, announced) + text
    lies = [None, frame, frame[: rng.randrange(1, HEADER)], bytes(9000)]
    if not is_counted:
        too_much = rng.randrange(4097, 65536)
        lies += [rng.randbytes(HEADER - 6) + struct.pack("=IH", 0, too_much), rng.randbytes(200)]
    return rng.choice(lies)


def talk(path, rng):
    """Gives the socket, also where nobody listens."""
    kind = socket.SOCK_SEQPACKET if path.name.startswith("hdc") else socket.SOCK_DGRAM
    session = socket.socket(socket.AF_UNIX, kind)
    session.settimeout(1)
    try:
        session.connect(str(path))
        if (said := lie(rng, path.name == COUNTED)) is not None:
            session.send(said)
    except OSError:
        pass
    return session


def main():
    directory, seconds, seed = pathlib.Path(sys.argv[1]), float(sys.argv[2]), int(sys.argv[3])
    rng = random.Random(seed)
    sessions = [talk(path, rng) for path in directory.iterdir() for _ in range(SESSIONS)]
    time.sleep(seconds)
    for session in sessions:
        session.close()


if __name__ == "__main__":
    main()
