"""Records what dmcat and dmond exchange on loopback, and compares it with what tshark shows."""
import atexit
import json
import os
import struct
import subprocess
import sys
import time
from socket import SOCK_DGRAM, setdefaulttimeout, socket
from tempfile import TemporaryDirectory

TSHARK, DISSECTOR, DMOND, DMCAT = sys.argv[1:]
OWN = TemporaryDirectory()
CAPTURE = f"{OWN.name}/capture.pcap"
# A user's own settings of tshark stay out of the test.
os.environ.update(HOME=OWN.name, XDG_CONFIG_HOME=OWN.name)
WORDS, MESSAGE = "HHHHHIIQ16s", "III"  # numbers in the sender's byte order
NAMES = "src_port dst_port reserved1 marker data_len type peer_id req_id reserved2 data".split()
FIELDS = ["dm_udp." + name for name in NAMES] + (
    "dm_udp.retransmission_of dm_udp.response_in dm_udp.request_in dm_udp.response_time json.key "
    "dmond.command dmond.status dmond.sequence dmond.body_len dmond.body "
    "_ws.expert.message").split()
setdefaulttimeout(60)


def record(dmond, arguments, capture, sendings=1, exchanges=1):
    """Runs dmcat through a relay that records, and answers the last of so many sendings."""
    with socket(type=SOCK_DGRAM) as front, socket(type=SOCK_DGRAM) as back:
        front.bind(("127.0.0.1", 0))
        back.connect(("127.0.0.1", dmond))
        own = front.getsockname()[1]
        dmcat = subprocess.Popen([DMCAT, f"udp://127.0.0.1:{own}", *arguments])
        for _ in range(exchanges):
            for _ in range(sendings):
                request, client = front.recvfrom(65535)
                capture.append((time.time_ns(), client[1], own, request))
            back.send(request)
            capture.append((time.time_ns(), own, client[1], back.recv(65535)))
            front.sendto(capture[-1][3], client)
        assert dmcat.wait(60) == 0, arguments


def changed(datagram, **words):
    values = dict(zip(NAMES, struct.unpack(f"<{WORDS}4096s", datagram))) | words
    return struct.pack(f"<{WORDS}4096s", *values.values())


def add_odd(capture):
    """Adds datagrams that break the rules; gives what is to be said of each."""
    (_, client, own, request), (stamp, _, _, response) = capture[-2:]
    odd = [(response, "The request has been answered before"),
           (changed(response, req_id=1), "The request of this response is not in the capture"),
           (request[:20], "A datagram has 4138 bytes"),
           (changed(request, req_id=2) + b"\0", "A datagram has 4138 bytes"),
           (changed(request, marker=2), "The marker is not 1"),
           (changed(request, reserved1=1), "A reserved word is not 0"),
           (changed(request, req_id=3, reserved2=b"\1" * 16), "A reserved word is not 0"),
           (changed(request, type=2), "The type is neither request nor response"),
           (changed(request, req_id=4, data_len=13), "The body has another length"),
           (changed(request, req_id=5, data_len=4097), "More than 4096 bytes of data are announced")]
    capture += [(stamp, own, client, datagram) for datagram, _ in odd[:2]]
    capture += [(stamp, client, own, datagram) for datagram, _ in odd[2:]]
    return [text for _, text in odd]


def in_order(order, datagram):
    """The datagram as a sender of that byte order would write it."""
    words, whole = WORDS + MESSAGE, datagram.ljust(54, b"\0")
    swapped = struct.pack(order + words, *struct.unpack_from("<" + words, whole))
    return (swapped + whole[54:])[:len(datagram)]


def decode(capture, order):
    with open(CAPTURE, "wb") as file:  # raw IPv4 packets, stamped in nanoseconds
        file.write(struct.pack("<IHHiIII", 0xa1b23c4d, 2, 4, 0, 0, 65535, 101))
        for stamp, src, dst, datagram in capture:
            size, lo = 28 + len(datagram), b"\x7f\0\0\1"
            file.write(struct.pack("<IIII", *divmod(stamp, 10**9), size, size))
            file.write(struct.pack(">BBHIBBH4s4sHHHH", 69, 0, size, 0, 64, 17, 0, lo, lo,
                                   src, dst, size - 20, 0) + datagram)
    # A port that the system chose may be another protocol's.
    command = [TSHARK, "-r", CAPTURE, "-2", "-T", "json", "-X", f"lua_script:{DISSECTOR}",
               "-o", "udp.try_heuristic_first:TRUE", "-o", f"dm_udp.little_endian:{order == '<'}",
               *(word for field in FIELDS for word in ("-e", field))]
    shown = json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)
    # Some of those ports are taken for a traceroute's.
    return [{name: text for name, values in packet["_source"]["layers"].items()
             if (text := ",".join(value for value in values if "traceroute" not in value))}
            for packet in shown]


def expected(capture, order, number, links):
    stamp, _, _, datagram = capture[number - 1]
    words, data = struct.unpack_from(order + WORDS, datagram), datagram[42:]
    code, sequence, body_len = struct.unpack_from(order + MESSAGE, data)
    values = [*words[:7], f"0x{words[7]:016x}", words[8].hex(), data[:words[4]].hex()]
    row = dict(zip(FIELDS, values)) | links | {"dmond.sequence": sequence}
    row |= {"dmond.body_len": body_len, "dmond.body": data[12:12 + body_len].hex()}
    row["dmond.status" if words[5] else "dmond.command"] = code
    if words[5]:
        taken = stamp - capture[links["dm_udp.request_in"] - 1][0]
        row["dm_udp.response_time"] = f"{taken / 1e9:.9f}"
    if number == 5:
        row["json.key"] = ",".join(json.loads(data[12:12 + body_len]))
    return {name: str(value) for name, value in row.items() if value != ""}


daemon = subprocess.Popen([DMOND, "--udp", "127.0.0.1:0"], stdout=subprocess.PIPE)
atexit.register(daemon.terminate)
port = int(daemon.stdout.readline().rsplit(b":", 1)[1])
recorded, ping = [], ["ping", "--data", '{"not": "shown as JSON"}', "--timeout"]
record(port, [*ping, "100", "--retry", "600"], recorded, sendings=2)
record(port, ["info", "--timeout", "60000"], recorded)
record(port, [*ping, "60000", "--interval", "0", "--count", "2"], recorded, exchanges=2)
# An identity may be used anew as soon as its request is answered.
recorded[5:] = [(*line, changed(datagram, req_id=6, peer_id=0x01020304))
                for *line, datagram in recorded[5:]]
recorded[8] = (recorded[7][0] - 10**6, *recorded[8][1:])  # as two clocks have it
said = add_odd(recorded)
response_in = {1: 3, 2: 3, 4: 5, 6: 7, 8: 9}
links = {number: {"dm_udp.response_in": response} for number, response in response_in.items()}
links |= {response: {"dm_udp.request_in": response - 1} for response in response_in.values()}
links[2] |= {"dm_udp.retransmission_of": 1, "_ws.expert.message": "The request is sent again"}
links[3]["dm_udp.request_in"] = 1
for order in "<>":
    sent = [(*line, in_order(order, datagram)) for *line, datagram in recorded]
    shown = decode(sent, order)
    rows = [expected(sent, order, number, links[number]) for number in sorted(links)]
    assert shown[:len(rows)] == rows, (order, shown, rows)
    assert [layers["_ws.expert.message"] for layers in shown[len(rows):]] == said, (order, shown)
