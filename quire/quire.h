// The quire library: a client of the document service. Including this header declares every
// public class of the library.
#pragma once

#include "quire/connection/connection.h"
#include "quire/connection/connection_params.h"
#include "quire/connection/i_connection.h"
#include "quire/connection/network_response_info.h"
#include "quire/model/link_relations.h"
#include "quire/services/endpoints.h"
#include "quire/upload/connection_utils.h"
