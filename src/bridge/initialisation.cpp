// NuvioConnect: from the device-info array to a core on the loop, and back.
#include <syslog.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "bridge/bridge.h"
#include "bridge/bridge_private.h"
#include "common/number.h"
#include "utility/environment_item.h"
#include "utility/log_delegate.h"
#include "utility/uv_utilities.h"

namespace android {
namespace {

constexpr nuv_device_type kDeviceType = NUV_DEVICE_TYPE_SPEAKER;
constexpr int32_t kInterfaceVersion = 1;
constexpr int32_t kRendererCount = 1;

}  // namespace

NuvioConnect::NuvioConnect() : m_listener(NuvioSSListener::getInstance()) {}

NuvioConnect::~NuvioConnect() {
    releaseAll();
}

void NuvioConnect::initDeviceInfo(uv_loop_t* loop) {
    m_teardown.loop = loop;
    try {
        parseDeviceInfo();
        if (createModules()) {
            installSdkLog();
            onInitialized();
            return;
        }
    } catch (const std::out_of_range& error) {
        syslog(LOG_ERR,
               "NuvioConnect: Device info initialization failed due to out of range error: %s",
               error.what());
    } catch (const std::exception& error) {
        syslog(LOG_ERR,
               "NuvioConnect: An unexpected error occurred during device info initialization: %s",
               error.what());
    }
    releaseAll();
}

void NuvioConnect::parseDeviceInfo() {
    static constexpr std::array<std::pair<DeviceInfoIndex, std::string NuvioConnect::*>, 10>
        kFields = {{
            {DEVICE_INFO_APP_ID, &NuvioConnect::m_appId},
            {DEVICE_INFO_APP_SECRET, &NuvioConnect::m_appSecret},
            {DEVICE_INFO_DEVICE_NAME, &NuvioConnect::m_deviceName},
            {DEVICE_INFO_MANUFACTURER, &NuvioConnect::m_manufacturer},
            {DEVICE_INFO_MODEL, &NuvioConnect::m_model},
            {DEVICE_INFO_LOG_LEVEL, &NuvioConnect::m_logLevel},
            {DEVICE_INFO_OUTPUT_DEVICE, &NuvioConnect::m_outputDevice},
            {DEVICE_INFO_VOLUME_ELEMENT, &NuvioConnect::m_volumeControlElement},
            {DEVICE_INFO_SERIAL_NUMBER, &NuvioConnect::m_serialNumber},
            {DEVICE_INFO_VOLUME_DEVICE, &NuvioConnect::m_volumeControlDevice},
        }};
    if (m_deviceInfo.size() < DEVICE_INFO_COUNT) {
        syslog(LOG_ERR, "NuvioConnect: Device info array has insufficient elements.");
        throw std::out_of_range("Device info array out of range.");
    }
    m_httpPort = static_cast<uint16_t>(nuvio::leading_number(m_deviceInfo[DEVICE_INFO_HTTP_PORT]));
    for (size_t index = 0; index < DEVICE_INFO_COUNT; ++index) {
        syslog(LOG_ERR, "NuvioConnect: deviceinfo = %s\n", m_deviceInfo[index].c_str());
    }
    for (const auto& [index, field] : kFields) {
        this->*field = m_deviceInfo[index];
    }
}

bool NuvioConnect::createModules() {
    return createDeviceInfo() && createAudioRenderer() && createHttpServer() &&
           createAdvertiser() && createNuvioConnect();
}

bool NuvioConnect::createDeviceInfo() {
    m_teardown.deviceInfo.reset(
        device_info_new(m_deviceName.c_str(), kDeviceType, m_manufacturer.c_str(), m_model.c_str(),
                        m_serialNumber.c_str(), m_appId.c_str(), m_appSecret.c_str()));
    m_deviceInfoHandle = m_teardown.deviceInfo.get();
    if (m_deviceInfoHandle == nullptr) {
        handleException("deviceinfo null");
    }
    return m_deviceInfoHandle != nullptr;
}

bool NuvioConnect::createAudioRenderer() {
    m_teardown.renderer.reset(audio_renderer_new(m_teardown.loop, m_outputDevice.c_str(),
                                                 m_volumeControlDevice.c_str(),
                                                 m_volumeControlElement.c_str()));
    m_renderer = m_teardown.renderer.get();
    if (m_renderer == nullptr) {
        handleException("audio_renderer is null");
    }
    return m_renderer != nullptr;
}

bool NuvioConnect::createHttpServer() {
    m_teardown.httpServer.reset(
        http_server_new(m_teardown.loop, m_httpPort, m_deviceInfoHandle, m_renderer));
    m_httpServer = m_teardown.httpServer.get();
    if (m_httpServer == nullptr) {
        handleException("http_server is null");
        return false;
    }
    http_server_add_own_names(m_httpServer, env_item(KFeatureNuvioConnectHttpNames));
    return true;
}

bool NuvioConnect::createAdvertiser() {
    m_teardown.advertiser.reset(
        avahi_advertiser_new(m_teardown.loop, m_deviceInfoHandle, m_httpServer));
    m_advertiser = m_teardown.advertiser.get();
    if (m_advertiser == nullptr) {
        handleException("advertiser is null");
    }
    return m_advertiser != nullptr;
}

bool NuvioConnect::createNuvioConnect() {
    nuv_error error = NUV_ERROR_OK;
    m_teardown.core.reset(nuv_connect_create(m_teardown.loop, makeConfig(), &error));
    m_core = m_teardown.core.get();
    if (m_core == nullptr && error == NUV_ERROR_OK) {
        error = NUV_ERROR_INTERNAL;
    }
    const bool created = error == NUV_ERROR_OK;
    if (!created) {
        app_log(LOG_LEVEL_ERROR, "Unable to create Nuvio Connect: %s", nuv_error_to_string(error));
        handleException("Unable to create Nuvio Connect");
    }
    syslog(LOG_ERR, "NuvioConnect: Nuvio SDK Version = %s\n", nuv_connect_get_sdk_version());
    syslog(LOG_ERR, "NuvioConnect: NUVIO CONNECT CREATED\n");
    return created;
}

// The texts are this object's own, which outlives the core.
nuv_connect_config NuvioConnect::makeConfig() const {
    nuv_connect_config config{};
    config.interface_version = kInterfaceVersion;
    config.device_name = m_deviceName.c_str();
    config.device_type = kDeviceType;
    config.manufacturer = m_manufacturer.c_str();
    config.model = m_model.c_str();
    config.serial_number = m_serialNumber.c_str();
    config.hardware_id = m_serialNumber.c_str();
    config.app_id = m_appId.c_str();
    config.app_secret = m_appSecret.c_str();
    config.maximum_audio_quality = audio_renderer_get_maximum_supported_audio_quality(m_renderer);
    config.renderer_count = kRendererCount;
    config.advertising_delegate = avahi_advertiser_get_advertising_delegate(m_advertiser);
    config.local_config_server_delegate =
        http_server_get_local_config_server_delegate(m_httpServer);
    config.audio_stream_delegate = audio_renderer_get_audio_stream_delegate(m_renderer);
    config.media_delegate = audio_renderer_get_media_delegate(m_renderer);
    return config;
}

void NuvioConnect::installSdkLog() {
    if (nuvio::leading_number(m_logLevel) == 0) {
        return;
    }
    const nuv_error error = nuv_connect_set_log_delegate(m_core, {nullptr, sdk_log_callback});
    if (error != NUV_ERROR_OK) {
        handleException(std::string("SDK log not shown: ") + nuv_error_to_string(error));
    }
}

void NuvioConnect::onInitialized() {
    avahi_advertiser_set_core(m_advertiser, m_core);
    http_server_set_core(m_httpServer, m_core);
    audio_renderer_set_core(m_renderer, m_core);
    syslog(LOG_ERR, "NuvioConnect: Nuvio Connect has been initialized\n");
    m_teardown.wakeUp = uv_async_new(m_teardown.loop, on_event_loop, nullptr);
    m_loopCall = std::make_unique<LoopCall>(m_teardown.loop);
}

void NuvioConnect::releaseAll() {
    m_teardown.core.reset();
    if (m_teardown.wakeUp != nullptr) {
        uv_async_free(std::exchange(m_teardown.wakeUp, nullptr));
    }
    if (m_loopCall != nullptr) {
        m_loopCall->close();
        m_loopCall.reset();
    }
    m_teardown.advertiser.reset();
    m_teardown.httpServer.reset();
    m_teardown.renderer.reset();
    m_teardown.deviceInfo.reset();
    if (m_teardown.loop != nullptr) {
        uv_stop(std::exchange(m_teardown.loop, nullptr));
    }
    m_core = nullptr;
    m_advertiser = nullptr;
    m_httpServer = nullptr;
    m_renderer = nullptr;
    m_deviceInfoHandle = nullptr;
}

void NuvioConnect::handleException(const std::string& message) {
    if (!message.empty()) {
        syslog(LOG_ERR, "NuvioConnect: %s %s", __func__, message.c_str());
    }
}

// The handle's only use is one pass of the loop, so that the core does what a command asked for.
void NuvioConnect::on_event_loop(uv_async_t*) {
    syslog(LOG_INFO, "NuvioConnect: %s", __func__);
}

}  // namespace android
