# Found by find_package(vesk-framing); the target is vesk-framing::vesk-framing.
include("${CMAKE_CURRENT_LIST_DIR}/vesk-framing-targets.cmake")
