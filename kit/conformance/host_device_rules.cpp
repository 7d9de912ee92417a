// What a host says of the device: its settings, who it is, whether it has a network.
#include <platform/Environment.h>

#include <array>
#include <cstring>

#include "common/number.h"
#include "common/utf8.h"
#include "conformance/host_rules.h"

namespace nuvio::kit {
namespace {

std::string check_items() {
    Stopwatch watch;
    std::array<char, kEnvItemBufferSize + 16> buffer{};
    for (const char* key : {kFeatureNuvioConnect, KFeatureNuvioConnectLog,
                            KFeatureNuvioConnectHttpPort, KFeatureNuvioConnectApp_id,
                            KFeatureNuvioConnectApp_secret, KFeatureNuvioConnectVolume_Element,
                            KFeatureNuvioConnectVolume_Device, kALSAOutputDeviceName, kOutputFS}) {
        std::string text = "left from before";
        watch.time("an item", kLimit, [&] { GetEnvItemByName(key, text); });
        expect(text != "left from before", std::string(key) + ": the text is left as it was");
        expect(nuvio::is_utf8(text), std::string(key) + " is not UTF-8");
        buffer.fill('#');
        GetEnvItemByName(key, buffer.data());
        expect(std::memchr(buffer.data(), '\0', kEnvItemBufferSize) != nullptr &&
                   buffer[kEnvItemBufferSize] == '#',
               std::string(key) + ": the plain form writes beyond 64 bytes");
        expect(text.substr(0, kEnvItemBufferSize - 1) == buffer.data(),
               std::string(key) + ": the two forms differ");
    }
    std::string unset = "left from before";
    GetEnvItemByName("there.is.no.such.item", unset);
    expect(unset.empty(), "an item that is not set does not read empty");
    std::string on;
    GetEnvItemByName(kFeatureNuvioConnect, on);
    return watch.longest() + "; the service is " + (nuvio::leading_number(on) != 0 ? "on" : "off");
}

std::string check_identity() {
    std::string seen;
    for (const auto get : {getFriendlyName, getManufacturer, getModel}) {
        std::string text = "left from before";
        const bool known = get(text);
        expect(text != "left from before", "a text is left as it was");
        expect(known || text.empty(), "unknown, but a text");
        expect(nuvio::is_utf8(text), "a text is not UTF-8");
        seen += (seen.empty() ? "\"" : ", \"") + text + "\"";
    }
    return seen;
}

std::string check_reach() {
    Stopwatch watch;
    KORAHelper kora;
    NeshHelper nesh;
    expect(comes([&] {
               return watch.time("KORA", kLimit, [&] { return kora.verifyConnection_l(); });
           }),
           "KORA is never reachable: the service waits for it without end");
    expect(comes([&] {
               return watch.time("Nesh", kLimit, [&] { return nesh.verifyConnection_l(); });
           }),
           "Nesh is never reachable: the service waits for it without end");
    return watch.longest();
}

std::string check_network() {
    Stopwatch watch;
    NeshHelper nesh;
    std::string seen;
    for (const int iface : {1, 2, 3, 0, -1}) {
        int status = 7;
        watch.time("a status", kLimit, [&] { nesh.getNetworkStatus(iface, &status); });
        expect(status != 7, "the status is left as it was");
        expect((iface == 1 || iface == 2) || status == 0, "an interface that is none is usable");
        seen += iface == 1   ? (status != 0 ? "wired up, " : "wired down, ")
                : iface == 2 ? (status != 0 ? "wireless up; " : "wireless down; ")
                             : "";
    }
    const auto gone = std::make_shared<std::atomic<bool>>(false);
    sp<INeshAlerts> alerts = new NetworkAlerts(gone);
    nesh.registerListener(alerts);
    expect(alerts->getStrongCount() > 1, "the listener is not kept");
    nesh.unregisterListener(alerts);
    alerts.clear();
    expect(comes([&] { return gone->load(); }), "a listener that has left is kept for ever");
    return seen + watch.longest();
}

}  // namespace

std::vector<Rule> device_rules() {
    return {
        {"items", check_items},
        {"identity", check_identity},
        {"reach", check_reach},
        {"network", check_network},
    };
}

}  // namespace nuvio::kit
