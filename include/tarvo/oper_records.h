/**
 * @file
 * The monitoring feature's operational records: native structures and their descriptors.
 *
 * Whoever produces a record fills its structure and hands it to bag_encode with the record's
 * descriptor, which is its name followed by `_bag` (platform/bag.h). The structures have natural
 * alignment; the library is not built when one of them and its descriptor differ.
 *
 * In the structures: IPv4 addresses are in network byte order, all other numbers in the machine's.
 * A boolean is true when it is not 0. Strings end with a NUL, are UTF-8 and must not be null. The
 * encoder takes strings and counted arrays by pointer and reads them during the call only.
 * Enumerations are 32-bit words here; their values, and the units of times, belong to the
 * components that fill the records.
 */
#ifndef TARVO_OPER_RECORDS_H
#define TARVO_OPER_RECORDS_H

#include "platform/bag.h"
#include "tarvo/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Registers all records below with the platform's encoder, in one registration and in ascending
 * type number. Nothing in the module calls it: the program does, once, where the encoder's
 * registry is wanted. bag_encode itself needs no registration.
 *
 * @param registry  handed to bag_register_start as it is
 * @return 0, or the code of the platform call that failed. After a refused record the registration
 * is aborted; after a failed bag_register_end nothing more is done
 */
TARVO_API uint32_t bag_register_all_manageability_tarvo_oper_bags(void *registry);

/** A prefix of the global table. */
typedef struct tarvo_ipv4_prefix_t {
  uint32_t Address;   /**< IPv4 */
  uint8_t MaskLength; /**< prefix length */
} tarvo_ipv4_prefix_t;

/** A traffic-engineering tunnel. */
typedef struct tarvo_tunnel_id_t {
  uint32_t TunnelID;
} tarvo_tunnel_id_t;

/** A pseudowire: its remote end and its number there. */
typedef struct tarvo_ipv4_pw_t {
  uint32_t Address; /**< IPv4 */
  uint32_t VirtualCircuitID;
} tarvo_ipv4_pw_t;

/** An IPv6 address, network byte order. */
typedef union tarvo_ipv6_address_t {
  uint8_t bytes[16];
  uint64_t alignment[2];
} tarvo_ipv6_address_t;

/** What an operation monitors. TargetType selects the member. */
typedef struct tarvo_target_t {
  uint32_t TargetType; /**< enum tarvo_target_type_enum */
  union {
    uint32_t IPv4AddressTarget;             /**< 1 */
    tarvo_ipv4_prefix_t IPv4PrefixTarget;   /**< 2 */
    tarvo_tunnel_id_t TunnelIDTarget;       /**< 3 */
    tarvo_ipv4_pw_t IPv4PseudowireTarget;   /**< 4 */
    tarvo_ipv6_address_t IPv6AddressTarget; /**< 5 */
  };
} tarvo_target_t;

/** A threshold was crossed: the reaction, its value, and the limits it has. */
typedef struct tarvo_notify_threshold_t {
  uint32_t ReactConfigIndex;
  uint32_t ReactValue;
  uint32_t ReactThresholdRising;
  uint32_t ReactThresholdFalling;
  uint32_t LSPSelector; /**< IPv4 */
} tarvo_notify_threshold_t;

/** A path discovery ended with a new result. */
typedef struct tarvo_notify_lpd_t {
  uint32_t MonitorID;
  uint32_t ReturnCode; /**< enum tarvoMplsLpdRetCode_ */
  uint64_t StartTime;
} tarvo_notify_lpd_t;

/** The status of a group of LSPs changed. */
typedef struct tarvo_notify_lsp_group_t {
  uint32_t MonitorID;
  uint32_t GroupStatus; /**< enum tarvoLspGrpStatusEnum_ */
  uint64_t StartTime;
} tarvo_notify_lsp_group_t;

/** Why a notification is sent. NotificationType selects the member. */
typedef struct tarvo_notify_value_t {
  uint32_t NotificationType; /**< enum tarvo_notify_type */
  union {
    tarvo_notify_threshold_t ThresholdValue; /**< 0 */
    tarvo_notify_lpd_t LPDValue;             /**< 1 */
    tarvo_notify_lsp_group_t LSPGroupValue;  /**< 2 */
  };
} tarvo_notify_value_t;

/** A notification: what is watched of which target, and what happened. */
typedef struct tarvo_notify_react_bag {
  uint32_t MonitoredElement; /**< enum tarvoReactMonitorElemEnum_ */
  tarvo_target_t TargetAddress;
  const char *Tag;
  tarvo_notify_value_t ElementValue;
} tarvo_notify_react_bag;

/** State of one monitoring operation. */
typedef struct tarvo_oper_state_bag {
  uint64_t ModificationTime;
  uint64_t StartTime;
  uint32_t AttemptCount;
  uint32_t SkippedCount;
  uint32_t LifeRemaining;
  uint32_t Frequency;
  uint8_t Recurring;
  uint32_t OperationalState; /**< enum tarvoOperStateEnum_ */
  uint32_t Flags;
  uint16_t LocalPort;
  uint32_t UnexpectedPackets;
  uint32_t UnexpectedControlPackets;
  uint64_t OperationTime;
} tarvo_oper_state_bag;

/** One kept result of an operation. */
typedef struct tarvo_history_bag {
  uint64_t StartTime;
  uint32_t ResponseTime;
  uint32_t ReturnCode; /**< enum tarvoRetCode_ */
  tarvo_target_t TargetAddress;
} tarvo_history_bag;

/** Statistics that every kind of operation keeps. */
typedef struct tarvo_common_stats_bag {
  uint64_t OperationTime;
  uint32_t ReturnCode; /**< enum tarvoRetCode_ */
  uint32_t ResponseTimeCount;
  uint32_t ResponseTime;
  uint32_t MinResponseTime;
  uint32_t MaxResponseTime;
  uint32_t SumResponseTime;
  uint64_t Sum2ResponseTime;
  uint32_t UpdateCount;
  uint32_t OkCount;
  uint32_t DisconnectCount;
  uint32_t TimeoutCount;
  uint32_t BusyCount;
  uint32_t NoConnectionCount;
  uint32_t DroppedCount;
  uint32_t InternalErrorCount;
  uint32_t SequenceErrorCount;
  uint32_t VerifyErrorCount;
} tarvo_common_stats_bag;

/** Statistics of ICMP path-jitter operations, for one hop. */
typedef struct tarvo_icmp_path_jitter_spec_stats_bag {
  uint32_t SourceAddress; /**< IPv4 */
  uint32_t DestAddress;   /**< IPv4 */
  uint32_t HopAddress;    /**< IPv4 */
  uint32_t PacketInterval;
  uint32_t ResponseTimeCount;
  uint32_t ResponseTime;
  uint32_t MinResponseTime;
  uint32_t MaxResponseTime;
  uint32_t SumResponseTime;
  uint64_t Sum2ResponseTime;
  uint32_t PacketCount;
  uint32_t PacketLossCount;
  uint32_t OutOfSequenceCount;
  uint32_t DiscardedSampleCount;
  uint32_t VerifyErrorsCount;
  uint32_t DroppedErrorCount;
  uint32_t Jitter;
  uint32_t PosJitterSum;
  uint64_t PosJitterSum2;
  uint32_t PosJitterMin;
  uint32_t PosJitterMax;
  uint32_t PosJitterCount;
  uint32_t NegJitterSum;
  uint32_t NegJitterMin;
  uint32_t NegJitterMax;
  uint64_t NegJitterSum2;
  uint32_t NegJitterCount;
} tarvo_icmp_path_jitter_spec_stats_bag;

/** Statistics of UDP jitter operations: from source to destination (SD), and back (DS). */
typedef struct tarvo_udp_jitter_spec_stats_bag {
  uint32_t JitterIn;
  uint32_t JitterOut;
  uint32_t PacketLossSD;
  uint32_t PacketLossDS;
  uint32_t PacketOutOfSequence;
  uint32_t PacketMIA;
  uint32_t PacketSkipped;
  uint32_t PacketLateArrivals;
  uint32_t PacketInvalidTstamp;
  uint32_t InternalErrorsCount;
  uint32_t BusiesCount;
  uint32_t PositiveSDSum;
  uint64_t PositiveSDSum2;
  uint32_t PositiveSDMin;
  uint32_t PositiveSDMax;
  uint32_t PositiveSDCount;
  uint32_t NegativeSDSum;
  uint64_t NegativeSDSum2;
  uint32_t NegativeSDMin;
  uint32_t NegativeSDMax;
  uint32_t NegativeSDCount;
  uint32_t PositiveDSSum;
  uint64_t PositiveDSSum2;
  uint32_t PositiveDSMin;
  uint32_t PositiveDSMax;
  uint32_t PositiveDSCount;
  uint32_t NegativeDSSum;
  uint64_t NegativeDSSum2;
  uint32_t NegativeDSMin;
  uint32_t NegativeDSMax;
  uint32_t NegativeDSCount;
  uint32_t OneWayCount;
  uint32_t OneWaySDMin;
  uint32_t OneWaySDMax;
  uint32_t OneWaySDSum;
  uint64_t OneWaySDSum2;
  uint32_t OneWayDSMin;
  uint32_t OneWayDSMax;
  uint32_t OneWayDSSum;
  uint64_t OneWayDSSum2;
} tarvo_udp_jitter_spec_stats_bag;

/** Statistics of one kind of operation. op_type selects the member; other kinds have none. */
typedef struct tarvo_specific_stats_t {
  uint32_t op_type; /**< enum op_type_enum */
  union {
    tarvo_icmp_path_jitter_spec_stats_bag ICMPPathJitterStats; /**< 2 */
    tarvo_udp_jitter_spec_stats_bag UDPJitterStats;            /**< 8 */
  };
} tarvo_specific_stats_t;

/** Statistics of one operation. */
typedef struct tarvo_global_stats_bag {
  tarvo_common_stats_bag CommonStats;
  tarvo_specific_stats_t SpecificStats;
} tarvo_global_stats_bag;

/** One of the equal-cost paths to a target. */
typedef struct tarvo_lpd_path_id_bag {
  uint32_t LSPSelector; /**< IPv4 */
  uint32_t OutputInterface;
  uint32_t NexthopAddress; /**< IPv4 */
  struct {
    uint32_t count; /**< at most 10 */
    const uint32_t *elements;
  } DownstreamLabels;
} tarvo_lpd_path_id_bag;

/** Statistics of path discovery for one target. */
typedef struct tarvo_lpd_stats_bag {
  uint64_t StartTime;
  tarvo_target_t TargetAddress;
  uint32_t ReturnCode; /**< enum tarvoMplsLpdRetCode_ */
  uint32_t CompletionTimeCount;
  uint32_t CompletionTime;
  uint32_t MinCompletionTime;
  uint32_t MaxCompletionTime;
  uint32_t SumCompletionTime;
  uint32_t PathCount;
  uint32_t MinPathCount;
  uint32_t MaxPathCount;
  uint32_t OkCount;
  uint32_t NoPathCount;
  uint32_t AllPathsBrokenCount;
  uint32_t AllPathsUnexplorableCount;
  uint32_t AllPathsBrokenOrUnexplorableCount;
  uint32_t TimeoutCount;
  uint32_t InternalErrorCount;
  uint32_t UnknownCount;
} tarvo_lpd_stats_bag;

/** Last result of path discovery for one path. */
typedef struct tarvo_lpd_path_stats_bag {
  tarvo_lpd_path_id_bag PathID;
  uint32_t ReturnCode; /**< enum tarvoRetCode_ */
} tarvo_lpd_path_stats_bag;

/** State of path discovery for one target. */
typedef struct tarvo_lpd_state_bag {
  uint32_t MonitorID;
  tarvo_target_t TargetAddress;
  uint32_t DiscoveryMode; /**< enum tarvoMplsLpdDiscoveryModeEnum_ */
  uint64_t StartTime;
  uint32_t ReturnCode; /**< enum tarvoMplsLpdRetCode_ */
  uint32_t CompletionTime;
  uint32_t PathCount;
} tarvo_lpd_state_bag;

/** Status of one discovered path. */
typedef struct tarvo_lpd_path_state_bag {
  tarvo_lpd_path_id_bag PathID;
  uint32_t PathStatus; /**< enum tarvoMplsLpdPathDiscoveryStatus_ */
} tarvo_lpd_path_state_bag;

/** Statistics of path discovery for the MIB. */
typedef struct tarvo_lpd_mibstats_bag {
  tarvo_target_t TargetAddress;
  uint32_t PathPassCount;
  uint32_t PathFailCount;
  uint32_t PathTimeoutCount;
  uint32_t AvgResponseTime;
  uint32_t MinResponseTime;
  uint32_t MaxResponseTime;
  uint32_t MinPathCount;
  uint32_t MaxPathCount;
  uint64_t LPDStartTime;
  uint32_t LPDReturnCode; /**< enum tarvoMplsLpdRetCode_ */
  uint32_t LPDCompletionTime;
  uint32_t GroupStatus; /**< enum tarvoLspGrpStatusEnum_ */
  const char *GroupPathStatus;
  const char *GroupPathIds;
} tarvo_lpd_mibstats_bag;

/** Seconds to the next actions of LSP monitoring. */
typedef struct tarvo_mplslm_state_bag {
  uint32_t ScanRemaining;
  uint32_t DeleteScanRemaining;
  uint32_t RediscoveryRemaining;
  uint32_t LPDCompeletionTime;
} tarvo_mplslm_state_bag;

/** A change of the target list that waits for the next scan. */
typedef struct tarvo_mplslm_scan_queue_bag {
  uint32_t TargetAddress; /**< IPv4 */
  uint32_t TargetMask;
  uint32_t Entry; /**< enum tarvoMplsAddDeleteEnum_ */
} tarvo_mplslm_scan_queue_bag;

/** State of LSP monitoring for one target. */
typedef struct tarvo_mplslm_op_state_bag {
  uint32_t TargetAddress; /**< IPv4 */
  uint32_t TargetMask;
  uint32_t GroupStatus; /**< enum tarvoLspGrpStatusEnum_ */
  uint64_t OperationTime;
} tarvo_mplslm_op_state_bag;

/** State of LSP monitoring for one path of a target. */
typedef struct tarvo_mplslm_op_path_state_bag {
  tarvo_lpd_path_id_bag PathID;
  uint32_t PathStatus; /**< enum tarvoLspGrpPathStatusEnum_ */
  uint64_t OperationTime;
  uint32_t ResponseTime;
  uint32_t SuccessCount;
  uint32_t FailureCount;
} tarvo_mplslm_op_path_state_bag;

/** Discovery: the refresh cycle. */
typedef struct tarvo_discovery_state_bag {
  uint32_t RefreshRemaining; /**< seconds to the end of the refresh interval */
} tarvo_discovery_state_bag;

/** Discovery: the route of the global table that covers a next hop. */
typedef struct tarvo_discovery_prefix_bag {
  uint32_t TargetAddress; /**< IPv4 */
  uint32_t TargetMask;    /**< prefix length */
} tarvo_discovery_prefix_bag;

/** Discovery: one VRF that uses a next hop. */
typedef struct tarvo_discovery_vrf_bag {
  uint32_t PrefixCount; /**< routes of the VRF that use the next hop */
} tarvo_discovery_vrf_bag;

/** @name Descriptors
 * @{ */
/** A descriptor. They stand in order of registration. */
TARVO_API extern const bag_descriptor_t tarvo_ipv4_prefix_t_bag;
TARVO_API extern const bag_descriptor_t tarvo_tunnel_id_t_bag;
TARVO_API extern const bag_descriptor_t tarvo_ipv4_pw_t_bag;
TARVO_API extern const bag_descriptor_t tarvo_notify_threshold_t_bag;
TARVO_API extern const bag_descriptor_t tarvo_notify_lpd_t_bag;
TARVO_API extern const bag_descriptor_t tarvo_notify_lsp_group_t_bag;
TARVO_API extern const bag_descriptor_t tarvo_notify_react_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_oper_state_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_history_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_common_stats_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_icmp_path_jitter_spec_stats_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_udp_jitter_spec_stats_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_global_stats_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_lpd_path_id_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_lpd_stats_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_lpd_path_stats_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_lpd_state_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_lpd_path_state_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_lpd_mibstats_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_mplslm_state_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_mplslm_scan_queue_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_mplslm_op_state_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_mplslm_op_path_state_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_discovery_state_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_discovery_prefix_bag_bag;
TARVO_API extern const bag_descriptor_t tarvo_discovery_vrf_bag_bag;
/** @} */

#ifdef __cplusplus
}
#endif

#endif
