set(port_processor aarch64)
set(port_triple aarch64-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/MoxPort.cmake")
