#include <pelm/analytics/solvan.hpp>

namespace pelm {

std::string Solvan::storeName(std::int64_t number) {
    switch (number) {
        case 1:
            return "Talstraße Galerie";
        case 2:
            return "Lindgasse";
        case 3:
            return "Ostfeld am Hang";
        case 901:
            return "Test - Harvel";
        case 902:
            return "Test - Quenta";
        case 903:
            return "Test - Norbel";
        case 904:
            return "Test - SOLVAN";
        case 905:
            return "Reserve";
        default:
            return std::to_string(number);
    }
}

std::string Solvan::merchandiseGroupName(std::int64_t number) {
    if (number == 1 || number == 2) return "Eingangsbereich";
    if (number >= 3 && number <= 8) return "Kassa";
    switch (number) {
        case 9:
            return "Feinkost";
        case 10:
            return "Backshop & Konditorei";
        case 11:
            return "Käse";
        case 12:
            return "Milchprodukte";
        case 13:
            return "Obst";
        case 14:
            return "Tiernahrung";
        case 15:
            return "Putzmittel";
        case 16:
            return "Kosmetik";
        case 17:
            return "Tiefkühlung";
        case 18:
            return "Konserven";
        case 19:
            return "Trockensortiment";
        case 20:
            return "Getränke";
        case 21:
            return "Kaffee";
        case 22:
            return "Spirituosen";
        case 23:
        case 24:
            return "Süßigkeiten";
        case 25:
            return "3rd Party A";
        case 26:
            return "3rd Party B";
        case 27:
            return "3rd Party C";
        case 901:
            return "Test - UseCase Eingang";
        case 902:
            return "Test - UseCase Kassa";
        case 903:
            return "Test - UseCase Gutschein 1";
        case 904:
            return "Test - UseCase Gutschein 2";
        case 905:
            return "Test - UseCase Gutschein 3";
        default:
            return std::to_string(number);
    }
}

std::string Solvan::eventLabelByBeacon(std::string_view uuid, std::string_view major,
                                       std::string_view minor) {
    std::string label;
    label.reserve(uuid.size() + major.size() + minor.size() + 2);
    label.append(uuid).append("+").append(major).append("+").append(minor);
    return label;
}

}  // namespace pelm
