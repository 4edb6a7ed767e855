// BGP OPEN (RFC 4271, 5492, 9072): the capabilities that decide how a peer's UPDATEs are read.
#pragma once

#include "agent/bgp_message.h"

namespace agent {

/// Reads the OPENs sent and received: the families whose routes come with path identifiers. That
/// takes one that offers them and one that asks for them, or just `either` of the two.
add_path_families read_opens(byte_cursor in, bool either, bgp_fault &fault);

}  // namespace agent
