"""What the rules of the packet filter add to one datagram: the same send with and without them.

A socket that nobody reads stands in for the instance. Sends that find its buffer full are the same in both
cases.
"""

import socket
import statistics
import subprocess
import time
from pathlib import Path

from compare.instances import PAYLOAD, PORT, SETUPS, UPSTREAM_PORT, write_file

SENDS = 20_000
ROUNDS = 15
HEADER = 20


def nanoseconds_of_send(source: int, destination: int) -> float:
    """The processor time of one send, rules and delivery included."""
    datagram = bytes(HEADER + PAYLOAD)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender, \
            socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sink:
        sender.bind(("127.0.0.1", source))
        sink.bind(("127.0.0.1", destination if destination != PORT else PORT + 1))
        began = time.thread_time_ns()
        for _ in range(SENDS):
            sender.sendto(datagram, ("127.0.0.1", destination))
        return (time.thread_time_ns() - began) / SENDS


def rules_of(build: Path, folder: Path) -> str:
    file = folder / "rules.toml"
    write_file(build, SETUPS[-1], file)
    return subprocess.run([str(build / "vesk-controller"), "--print-nft", str(file)], check=True,
                          stdout=subprocess.PIPE, text=True).stdout


def nft(text: str) -> None:
    subprocess.run(["nft", "-f", "-"], input=text, text=True, check=True)


def measure(build: Path, folder: Path) -> dict:
    """Nanoseconds that the rules add to a request and to a reply, medians of the rounds."""
    rules = rules_of(build, folder)
    requests, replies = [], []
    for _ in range(ROUNDS):
        plain_request = nanoseconds_of_send(0, PORT + 1)
        plain_reply = nanoseconds_of_send(PORT + 1, UPSTREAM_PORT)
        nft(rules)
        requests.append(nanoseconds_of_send(0, PORT) - plain_request)
        replies.append(nanoseconds_of_send(PORT + 1, UPSTREAM_PORT) - plain_reply)
        nft(f"delete table inet vesk_{PORT}")
    return {"request_ns": statistics.median(requests), "reply_ns": statistics.median(replies)}
