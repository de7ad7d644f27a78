"""What an HMAC-SHA-256 key leaves in the hash states that a forwarder keeps for it.

hashlib does not show its states, so the compression function is written out here.
"""

from __future__ import annotations

import hashlib
import struct
from typing import Iterator, List, Sequence

_BLOCK = 64
_WORD = 0xFFFFFFFF


def _primes() -> Iterator[int]:
    number = 2
    while True:
        if all(number % divisor for divisor in range(2, number)):
            yield number
        number += 1


def _fraction_of_root(number: int, degree: int) -> int:
    """The first 32 bits after the point of the square or cube root."""
    scaled = number << (32 * degree)
    root = 0
    for bit in reversed(range(40)):
        if (root | 1 << bit) ** degree <= scaled:
            root |= 1 << bit
    return root & _WORD


_FIRST_PRIMES = [prime for prime, _ in zip(_primes(), range(64))]
_START = [_fraction_of_root(prime, 2) for prime in _FIRST_PRIMES[:8]]
_ROUNDS = [_fraction_of_root(prime, 3) for prime in _FIRST_PRIMES]


def _turn(word: int, *bits: int) -> int:
    """The word rotated right by each number of bits, combined."""
    result = 0
    for count in bits:
        result ^= (word >> count | word << (32 - count)) & _WORD
    return result


def _schedule(block: bytes) -> List[int]:
    words = list(struct.unpack(">16I", block))
    for i in range(16, 64):
        early, late = words[i - 15], words[i - 2]
        words.append((words[i - 16] + (_turn(early, 7, 18) ^ early >> 3)
                      + words[i - 7] + (_turn(late, 17, 19) ^ late >> 10)) & _WORD)
    return words


def state_after(block: bytes) -> Sequence[int]:
    """The eight words of the state after the first block."""
    a, b, c, d, e, f, g, h = _START
    for word, constant in zip(_schedule(block), _ROUNDS):
        add = (h + _turn(e, 6, 11, 25) + (e & f ^ ~e & _WORD & g) + constant + word) & _WORD
        majority = a & b ^ a & c ^ b & c
        a, b, c, d, e, f, g, h = ((add + _turn(a, 2, 13, 22) + majority) & _WORD, a, b, c,
                                  (d + add) & _WORD, e, f, g)
    return [(start + word) & _WORD for start, word in zip(_START, (a, b, c, d, e, f, g, h))]


def kept_states(secret: bytes) -> List[bytes]:
    """The inner and the outer state of an HMAC key, as they lie in memory."""
    key = hashlib.sha256(secret).digest() if len(secret) > _BLOCK else secret
    key = key.ljust(_BLOCK, b"\0")
    return [struct.pack("=8I", *state_after(bytes(byte ^ padding for byte in key)))
            for padding in (0x36, 0x5C)]
