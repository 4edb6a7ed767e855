# Targets: tarvo::mpls_discovery, the module, and tarvo::platform, the services it calls, which comes
# with it.
include("${CMAKE_CURRENT_LIST_DIR}/tarvo_mpls_discovery-targets.cmake")
