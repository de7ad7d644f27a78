"""Fixtures of the tests in this folder."""

pytest_plugins = ["framework.fixtures", "languages"]
