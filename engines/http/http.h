// SPDX-License-Identifier: Apache-2.0
// Every public header but testing.h (the test kit) and version.h, in reading order.
//
// Where its comment does not say otherwise, a type is as thread-safe as a standard container:
// several threads may read one object at once. Names that begin with an underscore, and those in
// `detail`, are not for callers; the former are the steps of a call, exported for tests.
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
