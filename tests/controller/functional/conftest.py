"""Fixtures for the tests of this folder."""

pytest_plugins = ["framework.fixtures", "controller_fixtures"]
