"""Compares the forwarder with the loops beside it: what scripts/bench is made of."""
