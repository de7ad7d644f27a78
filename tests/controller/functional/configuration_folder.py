"""Writes the controller's folder of fragments."""

from __future__ import annotations

import os
from pathlib import Path

from configuration_file import ConfigurationFile
from framework.flow import Flow


class ConfigurationFolder(ConfigurationFile):
    """A folder with the settings in one fragment, `00-base.toml`, and any number of fragments with flows."""

    def __init__(self, folder: Path) -> None:
        super().__init__(folder)
        self.path = folder / "conf.d"
        self.path.mkdir()

    def write(self, mode: int = 0o600) -> Path:
        """Writes the settings."""
        self.put("00-base.toml", self.settings(), mode)
        return self.path

    def put(self, name: str, text: str, mode: int = 0o600) -> Path:
        """Replaces a file as a whole."""
        file = self.path / name
        written = self.path / f".{name}.new"
        written.write_text(text, encoding="utf-8")
        written.chmod(mode)
        os.replace(written, file)
        return file

    def put_flows(self, name: str, **flows: Flow) -> Path:
        return self.put(name, self.text_of(flows))
