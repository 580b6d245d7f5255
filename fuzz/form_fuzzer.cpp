// Any bytes as a form body: decoding never fails, gives JSON that can be written out, and what the
// library's encoder wrote decodes back to the same values.
#include <pelm/api/form_encoding.hpp>
#include <pelm/model/json_text.hpp>

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "pelm_server/form_body.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto form = pelm::server::parseFormBody(text);
    (void)pelm::jsonText(form);
    // Escaping then decoding any text gives the text back.
    if (pelm::formDecode(pelm::percentEscape(text)) != text) std::abort();
    return 0;
}
