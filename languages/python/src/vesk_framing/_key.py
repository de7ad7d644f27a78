"""Keys: HMACs that are prepared once and computed for each datagram."""

from __future__ import annotations

import enum
import hmac
from typing import Final, final

# The longest key.
MAX_KEY: Final = 128


class Digest(enum.Enum):
    SHA1 = "sha1"
    SHA256 = "sha256"


@final
class Key:
    """A key of 1 to 128 bytes with its digest.

    The bytes are not kept, but what the HMAC remembers of them is, and Python wipes no memory.
    """

    __slots__ = ("_prepared",)

    def __init__(self, secret: bytes, digest: Digest = Digest.SHA256) -> None:
        """Raises ValueError if the key is empty or longer than 128 bytes."""
        if not 1 <= len(secret) <= MAX_KEY:
            raise ValueError(f"a key has 1 to {MAX_KEY} bytes, not {len(secret)}")
        self._prepared: hmac.HMAC | None = hmac.new(secret, digestmod=Digest(digest).value)

    @classmethod
    def empty(cls) -> Key:
        """For a flow without a key: its HMACs are zeros, and nothing is authenticated."""
        key = cls.__new__(cls)
        key._prepared = None
        return key

    def _hmac(self, first: bytes, second: bytes, length: int) -> bytes:
        """The HMAC field of this length over two pieces: the digest, truncated or padded with zeros."""
        if self._prepared is None:
            return bytes(length)
        # A copy, so that threads can share the key.
        computed = self._prepared.copy()
        computed.update(first)
        computed.update(second)
        return computed.digest()[:length].ljust(length, b"\0")
