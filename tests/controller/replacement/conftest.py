"""Fixtures of the tests of this folder."""

pytest_plugins = ["framework.fixtures", "controller_fixtures", "traffic_fixtures"]
