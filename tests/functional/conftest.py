"""What the tests of this folder are given."""

pytest_plugins = ["framework.fixtures"]
