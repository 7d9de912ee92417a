// All that a host is made of, for the description of its binary interface: each function and class
// of the headers. A new one is entered at the end.
#pragma once

#include "platform/Environment.h"
#include "platform/Kora.h"
#include "platform/Nesh.h"
#include "platform/SourceSwitch.h"
#include "platform/Thread.h"
#include "platform/UIManager.h"

// A method as a plain function with the object in front: of pointers to methods the description
// would not tell the result.
template <typename Result, typename Object, typename... Arguments>
auto as_function(Result (Object::*)(Arguments...)) -> Result (*)(Object*, Arguments...);
template <typename Result, typename... Arguments>
auto as_function(Result (*)(Arguments...)) -> Result (*)(Arguments...);

struct HostInterface {
    decltype(as_function(&android::KORAHelper::verifyConnection_l)) kora_verify_connection_l;
    decltype(as_function(&android::KORAHelper::registerListener)) kora_register_listener;
    decltype(as_function(&android::KORAHelper::unregisterListener)) kora_unregister_listener;
    decltype(as_function(&android::KORAHelper::readRemoteMessage)) kora_read_remote_message;
    decltype(as_function(&android::KORAHelper::writeRemoteMessage)) kora_write_remote_message;
    decltype(as_function(&android::NeshHelper::verifyConnection_l)) nesh_verify_connection_l;
    decltype(as_function(&android::NeshHelper::registerListener)) nesh_register_listener;
    decltype(as_function(&android::NeshHelper::unregisterListener)) nesh_unregister_listener;
    decltype(as_function(&android::NeshHelper::getNetworkStatus)) nesh_get_network_status;
    decltype(as_function(&android::SourceSwitchClient::PlayMySource)) source_switch_play_my_source;
    decltype(as_function(
        &android::SourceSwitchClient::UpdatePlayerState)) source_switch_update_player_state;
    decltype(as_function(
        &android::SourceSwitchClient::UpdateAppVolume)) source_switch_update_app_volume;
    decltype(as_function(
        &android::SourceSwitchClient::NotifyPlaybackStopped)) source_switch_notify_playback_stopped;
    decltype(as_function(
        &android::SourceSwitchClient::DisconnectMySource)) source_switch_disconnect_my_source;
    decltype(as_function(&android::IUIManager::asInterface)) ui_manager_as_interface;
    decltype(as_function(&android::ProcessState::self)) process_self;
    decltype(as_function(&android::IPCThreadState::self)) pool_self;
    decltype(as_function(&android::Thread::run)) thread_run;
    decltype(as_function(&android::Thread::join)) thread_join;
    void (*item)(const char*, std::string&);
    void (*plain_item)(const char*, char*);
    bool (*friendly_name)(std::string&);
    bool (*manufacturer)(std::string&);
    bool (*model)(std::string&);
    android::sp<android::IServiceManager> (*service_manager)();
    android::KoraMessage message;
    android::EPlayState play_state;
    android::KORAHelper* kora;
    android::IKoraAlerts* kora_alerts;
    android::NeshHelper* nesh;
    android::INeshAlerts* nesh_alerts;
    android::SourceSwitchClient* source_switch;
    android::BnSourceSwitchListener* source_listener;
    android::IUIManager* ui_manager;
    android::AMessage* ui_message;
    android::ProcessState* process;
    android::IPCThreadState* pool;
    android::Thread* thread;
    // By value, so that there is one to be described.
    android::Vector<int> ids;
    android::sp<android::IServiceManager> pointer;
    // What is no type: the size of the plain items' buffer, and the source's number.
    char (*plain_item_buffer)[kEnvItemBufferSize];
    char (*source_number)[android::SOURCE_TYPE_NUVIO_CONNECT];
};
