-- Loads Vesk's dissector, without being asked to, since Wireshark loads every file in this folder. The
-- dissector itself lies with what does not depend on the architecture, and looks for its parts where
-- __DIR__ says, which Wireshark leaves empty for the plugins of the system.
local prefix = debug.getinfo(1, "S").source:match("^@(.*)/lib/")
_G.__DIR__ = prefix .. "/share/vesk/wireshark"
dofile(_G.__DIR__ .. "/vesk.lua")
_G.__DIR__ = nil
