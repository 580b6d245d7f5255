#pragma once

// How the records a host app receives travel as JSON: one binding list per record, in the order of its
// keys, serving both directions. The records themselves stay plain structures.

#include <pelm/model/beacon.hpp>
#include <pelm/model/content.hpp>
#include <pelm/model/json_binding.hpp>
#include <pelm/model/json_date_transform.hpp>
#include <pelm/model/language_code.hpp>
#include <pelm/model/meta_info.hpp>
#include <pelm/model/session.hpp>
#include <pelm/model/session_log.hpp>
#include <pelm/model/text_record.hpp>

namespace pelm {

/// The texts of Content::DisplayType on the wire.
template <>
struct RawValues<Content::DisplayType> {
    static constexpr std::array table{std::pair{Content::DisplayType::entry, std::string_view{"entry"}},
                                      std::pair{Content::DisplayType::exit, std::string_view{"exit"}}};
};

template <>
struct Binding<LanguageCode> {
    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("code", self.code);
        map("name", self.name);
    }
};

template <>
struct Binding<MetaInfo> {
    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("image_uri", self.imageURI);
        map("link_uri", self.linkURI);
    }
};

template <>
struct Binding<TextRecord> {
    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("name", self.name);
        map("text", self.text);
        map("language_code", self.languageCode);
    }
};

template <>
struct Binding<Content> {
    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("id", self.id);
        map("active", self.active);
        map("content_type", self.contentType);
        map("display_type", self.displayType);
        map("delay_time", self.delayTime);
        map("cool_down_time", self.coolDownTime);
        map("active_date_start", self.activeDateStart);
        map("active_date_stop", self.activeDateStop);
        map("active_time_start", self.activeTimeStart);
        map("active_time_stop", self.activeTimeStop);
        map("meta_info", self.metaInfo);
        map("text_record", self.textRecord);
        map("extra_info", self.extraInfo);
    }
};

template <>
struct Binding<Beacon> {
    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("uuid", self.uuid);
        map("major", self.major);
        map("minor", self.minor);
    }
};

template <>
struct Binding<Session> {
    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("app_version", self.appVersion);
        map("sdk_version", self.sdkVersion);
        map("operating_system", self.operatingSystem);
        map("start_time", self.startTime, JSONDateTransform{});
        map("end_time", self.endTime, JSONDateTransform{});
    }
};

template <>
struct Binding<SessionLog> {
    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("uuid", self.uuid);
        map("major", self.major);
        map("minor", self.minor);
        map("entrance_time", self.entranceTime, JSONDateTransform{});
        map("exit_time", self.exitTime, JSONDateTransform{});
    }
};

}  // namespace pelm
