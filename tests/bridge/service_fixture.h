// A fresh process for each test: fakes reset, no bridge, nobody listening.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "bridge/bridge.h"
#include "bridge/captured_log.h"
#include "bridge/fake_modules.h"
#include "fakes/fake_platform.h"
#include "fakes/fake_sdk.h"
#include "startup/network_state.h"
#include "startup/nuvio_connect_start.h"
#include "startup/nuvio_ss_listener.h"
#include "startup/service.h"

namespace service_test {

using Lines = std::vector<std::string>;

inline const std::vector<std::string> kSettings = {
    "8000", "id", "secret", "Den", "Maker", "Model", "1", "hw:0", "PCM", "a45e", "hw:1"};

class Service : public testing::Test {
  protected:
    Service() {
        fake_sdk::reset();
        fake_platform::reset();
        fake_modules::reset();
        captured_log::reset();
        resetNetwork();
    }

    ~Service() override {
        fake_sdk::on_call(nullptr);
        android::stopNuvioConnect();
        android::NuvioConnectStart::ReleaseInstance();
        android::NuvioSSListener::releaseInstance();
    }

    // As in a process that has just begun.
    static void resetNetwork() {
        android::NetworkState& network = android::NetworkState::get();
        const std::scoped_lock lock(network.mutex);
        network.connected = false;
        network.stopping = false;
        network.lastDeviceName.clear();
    }

    void startBridge(const std::vector<std::string>& settings = kSettings) {
        android::setDeviceInfo(settings);
        android::startNuvioConnectThread();
    }

    // Posts the commands and returns when the command thread is done with the last of them.
    void process(const Lines& commands) {
        for (const std::string& command : commands) {
            android::postEventTo_Nuvio(command);
        }
        const std::string mark = "MARK" + std::to_string(++m_marks) + ".";
        android::postEventTo_Nuvio(mark);
        ASSERT_TRUE(captured_log::wait_for("NuvioConnect:  Unknown Event " + mark));
    }

    size_t countLines(const std::string& text) { return captured_log::lines_with(text).size(); }

  private:
    int m_marks = 0;
};

// The service on a thread of its own, as main runs it.
class RunningService : public Service {
  protected:
    void run() {
        m_main = std::thread([this] { m_status = runService(); });
    }
    int end() {
        fake_platform::end_process();
        m_main.join();
        alarm(0);  // armed for the rest of a real process
        return m_status;
    }

  private:
    std::thread m_main;
    int m_status = -1;
};

}  // namespace service_test
