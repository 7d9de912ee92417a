#include "controller/device/offer.h"

#include "common/json/json.h"

namespace nuvio::controller {

std::string offer_body(const Offer& offer) {
    const auto token = [&](const std::string& endpoint) {
        JsonPtr object = new_object();
        add(object.get(), "endpoint", endpoint);
        add(object.get(), "jwt", offer.token);
        add(object.get(), "exp", offer.expires);
        return object;
    };
    JsonPtr document = new_object();
    add(document.get(), "session_id", offer.session);
    add(document.get(), "jwt_api", token(offer.content));
    add(document.get(), "jwt_nconnect", token(offer.channel));
    add(document.get(), "become_active", offer.plays);
    return print_json(document.get());
}

}  // namespace nuvio::controller
