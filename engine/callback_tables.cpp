// The callback tables of the configuration, RIB and table layers. The operational-data store's
// stands with its provider, in oper/.
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"

const tarvo_nd_cfg_fns_t tarvoMplsDiscoveryCfgFns = {tarvo_nd_set_rib_refresh_interval};

const tarvo_nd_rib_fns_t tarvoMplsDiscoveryRibFns = {tarvo_nd_enqueue_nhop_update,
                                                     tarvo_nd_enqueue_rib_restart};

const tarvo_nd_ital_fns_t tarvoMplsDiscoveryItalFns = {tarvo_nd_enqueue_table_update};
