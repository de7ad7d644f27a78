"""Writes the controller's file from flows of the tests."""

from __future__ import annotations

from pathlib import Path
from typing import Dict, Optional, Set

from framework.flow import Flow
from framework.framing import Key
from framework.lateral import LOOPBACK
from framework.udp import Address, free_port


class ConfigurationFile:
    """A configuration file in its own folder, and all keys that have been in it."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        self.path = folder / "vesk.toml"
        self.listen: Address = ("127.0.0.1", free_port())
        self.flows: Dict[str, Flow] = {}
        #: The label and the peer's legs to which a flow of this name changes.
        self.next: Dict[str, Flow] = {}
        self.tables: Dict[str, str] = {"metrics": "enabled = false"}
        self.secrets: Set[str] = set()

    def join(self, port: int, index: int = 0) -> None:
        """Makes this the file of one of two instances. Each has its own loopback address, and both
        have the same port."""
        other = 1 - index
        self.tables["lateral"] = (
            f'address = "{LOOPBACK[index]}"\nport = {port}\nindex = {index}\ninstances = 2\n'
            f'peers = [ {{ index = {other}, address = "{LOOPBACK[other]}" }} ]')

    def write(self, mode: int = 0o600) -> Path:
        self.write_text(self.settings() + self.text_of(self.flows), mode)
        return self.path

    def settings(self) -> str:
        """All tables other than the flows."""
        tables = {"downstream": f'address = "{self.listen[0]}"\nport = {self.listen[1]}',
                  **self.tables}
        return "".join(f"[{name}]\n{lines}\n\n" for name, lines in tables.items())

    def text_of(self, flows: Dict[str, Flow]) -> str:
        return "\n".join(self._table(name, flow) for name, flow in flows.items())

    def write_text(self, text: str, mode: int = 0o600) -> None:
        self.path.write_text(text, encoding="utf-8")
        self.path.chmod(mode)

    def _table(self, name: str, flow: Flow) -> str:
        assert flow.upstream is not None
        lines = [f"[flows.{name}]", f"label = {flow.label:#x}",
                 f'upstream = "{flow.upstream[0]}:{flow.upstream[1]}"',
                 f"from_peer = {{ {self._signature(flow.down_in)} }}",
                 f"to_upstream = {{ {self._signature(flow.up_out)} label = {flow.up_label} }}",
                 f"from_upstream = {{ {self._signature(flow.up_in)} }}",
                 self._to_peer(flow)]
        if name in self.next:
            following = self.next[name]
            lines += [f"[flows.{name}.next]", f"label = {following.label:#x}",
                      f"from_peer = {{ {self._signature(following.down_in)} }}",
                      self._to_peer(following)]
        # A comma may not end an inline table.
        return "\n".join(line.replace(", }", " }") for line in lines) + "\n"

    def _to_peer(self, flow: Flow) -> str:
        return f"to_peer = {{ {self._signature(flow.down_out)} label = {flow.down_label} }}"

    def _signature(self, key: Optional[Key]) -> str:
        if key is None:
            return ""
        self.secrets.add(key.secret.hex())
        return f'key = "{key.secret.hex()}", algorithm = "{key.algorithm}",'
