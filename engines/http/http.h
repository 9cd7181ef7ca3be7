// SPDX-License-Identifier: Apache-2.0
// The whole library. Each header says what it is for; read them in this order.
#pragma once

// clang-format off
#include "engines/http/failure.h"
#include "engines/http/transport.h"
#include "engines/http/policy.h"
#include "engines/http/redaction.h"
#include "engines/http/classification.h"
#include "engines/http/body.h"
#include "engines/http/json.h"
#include "engines/http/attempt.h"
#include "engines/http/reply.h"
#include "engines/http/retry.h"
#include "engines/http/requests.h"
#include "engines/http/events.h"
#include "engines/http/curl_transport.h"
// clang-format on
