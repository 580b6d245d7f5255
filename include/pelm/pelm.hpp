#pragma once

// The whole public API of the library: every header installed with it.

#include <pelm/analytics/google_analytics_manager.hpp>
#include <pelm/analytics/solvan.hpp>
#include <pelm/api/api_request.hpp>
#include <pelm/api/pelm_api_client.hpp>
#include <pelm/api/response_envelopes.hpp>
#include <pelm/beacons/discovered_beacon.hpp>
#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/beacons/pelm_beacon_manager_delegate.hpp>
#include <pelm/events/visit_event.hpp>
#include <pelm/model/app_config.hpp>
#include <pelm/model/beacon.hpp>
#include <pelm/model/content.hpp>
#include <pelm/model/date.hpp>
#include <pelm/model/json_date_transform.hpp>
#include <pelm/model/session.hpp>
#include <pelm/model/session_log.hpp>
#include <pelm/pelm_sdk.hpp>
#include <pelm/platform/linux/linux_platform.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/platform/platform_states.hpp>
#include <pelm/platform/run_loop.hpp>
#include <pelm/sdk/pelm_constants.hpp>
#include <pelm/sdk/settings_manager.hpp>
#include <pelm/session/pelm_session_manager.hpp>
#include <pelm/status/pelm_device_status_manager.hpp>
#include <pelm/status/status_enums.hpp>
#include <pelm/version.hpp>
