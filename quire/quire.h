/// @file
/// The quire library: a client of the document service. Including this header declares every
/// public class of the library.
#pragma once

#include "quire/connection/connection.h"
#include "quire/connection/connection_params.h"
#include "quire/connection/i_connection.h"
#include "quire/connection/i_transfer_connection.h"
#include "quire/connection/network_response_info.h"
#include "quire/connection/retry_policy.h"
#include "quire/connection/retrying_connection.h"
#include "quire/model/docs_entry.h"
#include "quire/model/docs_feed.h"
#include "quire/model/link_relations.h"
#include "quire/model/pointer_vector.h"
#include "quire/services/content_download.h"
#include "quire/services/docs_service.h"
#include "quire/services/download_target.h"
#include "quire/services/endpoints.h"
#include "quire/services/o_auth_signers.h"
#include "quire/services/service.h"
#include "quire/services/user_info_service.h"
#include "quire/upload/connection_utils.h"
#include "quire/upload/resumable_uploader.h"
