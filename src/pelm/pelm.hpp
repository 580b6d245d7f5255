#pragma once

// The whole public API of the library.

#include <pelm/model/app_config.hpp>
#include <pelm/model/beacon.hpp>
#include <pelm/model/content.hpp>
#include <pelm/model/date.hpp>
#include <pelm/model/json_date_transform.hpp>
#include <pelm/model/session.hpp>
#include <pelm/model/session_log.hpp>
#include <pelm/platform/linux/linux_platform.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/sdk/log.hpp>
#include <pelm/sdk/pelm_constants.hpp>
#include <pelm/sdk/settings_manager.hpp>
