/**
 * @file
 * Message catalogue of the monitoring feature: twelve message records and four rate limits.
 *
 * A component logs with oxa_errmsg(&record, record.severity, arguments of its format...). The
 * discovery module itself uses INTERNAL, ERR_MEM and DISC_LIMIT. Records never change; the limits
 * are written by the message log alone.
 */
#ifndef TARVO_MESSAGES_H
#define TARVO_MESSAGES_H

#include "platform/message_log.h"
#include "tarvo/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/** @name Message records
 * @{ */
/** Constant data, the message's own severity in it. */
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_agent;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_disc_limit;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_err_mem;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_err_mplslm;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_err_oper;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_err_quill;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_internal;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_issu_info;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_lpd_result_chg;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_lsp_group_chg;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_threshold_clear;
TARVO_API extern const oxa_msg_rec_t oxa_msg_rec_tarvo_threshold_set;
/** @} */

/** @name Rate limits
 * @{ */
/** One line in 300 s of DISC_LIMIT and ISSU_INFO, in 1 s of the others. */
TARVO_API extern oxa_msg_limit_t oxa_msg_limit_tarvo_disc_limit;
TARVO_API extern oxa_msg_limit_t oxa_msg_limit_tarvo_err_mplslm;
TARVO_API extern oxa_msg_limit_t oxa_msg_limit_tarvo_err_oper;
TARVO_API extern oxa_msg_limit_t oxa_msg_limit_tarvo_issu_info;
/** @} */

#ifdef __cplusplus
}
#endif

#endif
