// The device's identity, as controllers and the SDK see it.
//
// A record of the caller's pointers: no text is copied, so the texts must outlive the record.
// Immutable after creation; used on the loop thread. A null `self` is fatal everywhere.
#pragma once

#include "sdk/nuvio_connect.h"

struct device_info;

// All texts but app_secret must not be null (fatal); empty ones are fine. Never returns null.
device_info* device_info_new(const char* device_name, nuv_device_type device_type,
                             const char* manufacturer, const char* model, const char* serial_number,
                             const char* app_id, const char* app_secret);
// Releases the record, not the texts.
void device_info_free(device_info* self);

const char* device_info_get_device_name(const device_info* self);
nuv_device_type device_info_get_device_type(const device_info* self);
const char* device_info_get_manufacturer(const device_info* self);
const char* device_info_get_model(const device_info* self);
const char* device_info_get_serial_number(const device_info* self);
const char* device_info_get_app_id(const device_info* self);
// Part of the interface and not called by this program, as the delegate below.
const char* device_info_get_app_secret(const device_info* self);

// A delegate that logs whether the renderer is active; borrows `self`.
nuv_renderer_state_delegate device_info_get_renderer_state_delegate(device_info* self);
void device_info_on_active_state_changed(nuv_connect* core, bool active, void* self);
