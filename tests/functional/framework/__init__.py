"""Everything a functional test needs to drive the forwarder from outside.

The framework shares no code with the product. Framing and HMAC are implemented a second
time in Python, so that a defect in the product is not repeated in its tests.
"""
