#pragma once

// The whole public API of the library: every header installed with it.

#include <pelm/analytics/solvan.hpp>
#include <pelm/beacons/discovered_beacon.hpp>
#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/beacons/pelm_beacon_manager_delegate.hpp>
#include <pelm/events/visit_event.hpp>
#include <pelm/model/content.hpp>
#include <pelm/model/content_display_type.hpp>
#include <pelm/model/date.hpp>
#include <pelm/model/json.hpp>
#include <pelm/model/language_code.hpp>
#include <pelm/model/meta_info.hpp>
#include <pelm/model/session.hpp>
#include <pelm/model/session_log.hpp>
#include <pelm/model/text_record.hpp>
#include <pelm/pelm_sdk.hpp>
#include <pelm/platform/beacon_region.hpp>
#include <pelm/platform/clock.hpp>
#include <pelm/platform/device_identity.hpp>
#include <pelm/platform/device_status_sources.hpp>
#include <pelm/platform/http_transport.hpp>
#include <pelm/platform/key_value_store.hpp>
#include <pelm/platform/linux/linux_platform.hpp>
#include <pelm/platform/log_sink.hpp>
#include <pelm/platform/main_queue.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/platform/proximity_uuid.hpp>
#include <pelm/platform/region_monitor.hpp>
#include <pelm/platform/run_loop.hpp>
#include <pelm/status/pelm_device_status_manager.hpp>
#include <pelm/status/pelm_device_status_manager_delegate.hpp>
#include <pelm/status/status_enums.hpp>
#include <pelm/version.hpp>
