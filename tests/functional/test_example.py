"""An example to copy: one flow, one datagram in each direction.

A functional test starts the real executable, controls it as the controlling service does
(one command per line, log lines in return) and owns both ends of the traffic.
"""

from __future__ import annotations

import re

from framework.flow import Flow, four_keys
from framework.udp import UdpEnd
from framework.vesk_process import VeskProcess


# `vesk` is a running forwarder with default arguments; `peer` and `upstream` are bound
# UDP sockets. framework/fixtures.py has them and more, such as `start_vesk` for other arguments.
def test_a_datagram_is_forwarded_upstream_and_its_reply_to_the_peer(
        vesk: VeskProcess, peer: UdpEnd, upstream: UdpEnd) -> None:
    # Ports come from the kernel, so that tests can run side by side.
    port = vesk.listen("127.0.0.1")

    # A Flow has its "set" command and the form of its datagrams on both sides.
    flow = Flow(label=5, upstream=upstream.address, **four_keys("sha256"))

    # A command has no answer. `lines_after` waits until it has been executed and returns
    # the lines logged meanwhile: here none.
    assert vesk.lines_after(flow.set_command()) == []

    # Peer to upstream. `open_request` fails unless HMAC and label are correct.
    peer.send(flow.request(b"a question"), ("127.0.0.1", port))
    arrived = upstream.receive()
    assert flow.open_request(arrived.data).payload == b"a question"

    # Other threads log at any time, so wait for their lines.
    vesk.wait_for_log(created_line(flow.label))

    # Upstream to peer: the reply is sent to the address from which the datagram came.
    upstream.send(flow.reply(b"an answer"), arrived.sender)
    answer = peer.receive()
    assert flow.open_reply(answer.data).payload == b"an answer"
    assert answer.sender == ("127.0.0.1", port)

    # When the test returns, the fixture closes standard input and expects exit status 0,
    # an empty standard error and no core file.


def created_line(label: int) -> "re.Pattern[str]":
    """Whole lines are matched: a text must be equal, a pattern must match the whole line."""
    return re.compile(
        rf"info Created upstream endpoint: label 0x{label:x}/{label} sockfds \d+ \d+")
