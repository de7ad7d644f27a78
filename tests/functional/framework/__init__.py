"""Everything a functional test needs to drive the forwarder from outside.

Nothing in here shares code with the product: framing and HMAC are written a second
time, in Python, so that a mistake in one of the two cannot hide in the other.
"""
