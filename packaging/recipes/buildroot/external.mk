include $(sort $(wildcard $(BR2_EXTERNAL_NUVIO_CONNECT_PATH)/package/*/*.mk))
