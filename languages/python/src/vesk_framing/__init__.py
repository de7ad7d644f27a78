"""Makes, checks and relabels the datagrams that a Vesk forwarder accepts and sends.

For peers and upstream services. Nothing here has a state of its own: any number of threads may call the functions, and
may share keys. Lengths are in bytes. Mistakes of the caller raise ValueError.
"""

from ._datagrams import (MAX_DATAGRAM, Datagram, Framing, IpVersion, Match, Reason, Refused, check, header_length,
                         largest_payload, make, parse, relabel)
from ._key import MAX_KEY, Digest, Key

__all__ = ["MAX_DATAGRAM", "MAX_KEY", "Datagram", "Digest", "Framing", "IpVersion", "Key", "Match", "Reason", "Refused",
           "check", "header_length", "largest_payload", "make", "parse", "relabel"]
