// The engine's log lines carry a domain of their own, apart from liborlo's.
#pragma once

#define RAVEL_LOG_DOMAIN "ravel"
