"""The modules of scripts/bench, which compares the forwarder with the loops in bench/loops."""
