#include "device_info/device_info.h"

#include <new>

#include "utility/check.h"
#include "utility/log_delegate.h"

struct device_info {
    const char* device_name;
    nuv_device_type device_type;
    const char* manufacturer;
    const char* model;
    const char* serial_number;
    const char* app_id;
    const char* app_secret;
};

device_info* device_info_new(const char* device_name, nuv_device_type device_type,
                             const char* manufacturer, const char* model, const char* serial_number,
                             const char* app_id, const char* app_secret) {
    NUV_CHECK(device_name != NULL);
    NUV_CHECK(manufacturer != NULL);
    NUV_CHECK(model != NULL);
    NUV_CHECK(serial_number != NULL);
    NUV_CHECK(app_id != NULL);
    auto* self = new (std::nothrow) device_info{device_name,   device_type, manufacturer, model,
                                                serial_number, app_id,      app_secret};
    NUV_CHECK(self != NULL);
    return self;
}

void device_info_free(device_info* self) {
    NUV_CHECK(self != NULL);
    delete self;
}

const char* device_info_get_device_name(const device_info* self) {
    NUV_CHECK(self != NULL);
    return self->device_name;
}

nuv_device_type device_info_get_device_type(const device_info* self) {
    NUV_CHECK(self != NULL);
    return self->device_type;
}

const char* device_info_get_manufacturer(const device_info* self) {
    NUV_CHECK(self != NULL);
    return self->manufacturer;
}

const char* device_info_get_model(const device_info* self) {
    NUV_CHECK(self != NULL);
    return self->model;
}

const char* device_info_get_serial_number(const device_info* self) {
    NUV_CHECK(self != NULL);
    return self->serial_number;
}

const char* device_info_get_app_id(const device_info* self) {
    NUV_CHECK(self != NULL);
    return self->app_id;
}

const char* device_info_get_app_secret(const device_info* self) {
    NUV_CHECK(self != NULL);
    return self->app_secret;
}

nuv_renderer_state_delegate device_info_get_renderer_state_delegate(device_info* self) {
    NUV_CHECK(self != NULL);
    return {.context = self, .active_state_changed = device_info_on_active_state_changed};
}

void device_info_on_active_state_changed([[maybe_unused]] nuv_connect* core, bool active,
                                         void* self) {
    NUV_CHECK(self != NULL);
    app_log(LOG_LEVEL_INFO, "Renderer is now %s", active ? "active" : "inactive");
}
