// Configuration items and identity of the device. Any thread.
#pragma once

#include <cstddef>
#include <string>

// Keys of the configuration items.
inline constexpr char kFeatureNuvioConnect[] = "feature.nuvio_connect";  // number, 0: disabled
inline constexpr char KFeatureNuvioConnectLog[] = "feature.nuvio_connect.log";
inline constexpr char KFeatureNuvioConnectHttpPort[] = "feature.nuvio_connect.http_port";
// Further names by which controllers may ask for the device, comma separated; ".name": a domain.
inline constexpr char KFeatureNuvioConnectHttpNames[] = "feature.nuvio_connect.http_names";
inline constexpr char KFeatureNuvioConnectApp_id[] = "feature.nuvio_connect.app_id";
inline constexpr char KFeatureNuvioConnectApp_secret[] = "feature.nuvio_connect.app_secret";
inline constexpr char KFeatureNuvioConnectVolume_Element[] = "feature.nuvio_connect.volume_element";
inline constexpr char KFeatureNuvioConnectVolume_Device[] = "feature.nuvio_connect.volume_device";
inline constexpr char kALSAOutputDeviceName[] = "alsa.output_device";
inline constexpr char kOutputFS[] = "alsa.output_rates";  // Hz, comma separated, highest last
// What is wrong with the configuration as it is written, a fault a line, each with its place. Empty
// where nothing is, or where nobody looks.
inline constexpr char kConfigurationFaults[] = "configuration.faults";

// Bytes of the plain form's buffer, terminator included; a longer value is cut.
inline constexpr size_t kEnvItemBufferSize = 64;

// The item's value; empty when it is not set, as a null key never is. The plain form's buffer has
// room for kEnvItemBufferSize bytes.
void GetEnvItemByName(const char* key, std::string& value);
void GetEnvItemByName(const char* key, char* value);

// Each fills `value` and returns true; false, `value` empty, where the device does not know.
bool getFriendlyName(std::string& value);
bool getManufacturer(std::string& value);
bool getModel(std::string& value);
