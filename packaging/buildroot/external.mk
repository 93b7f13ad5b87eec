include $(sort $(wildcard $(BR2_EXTERNAL_KIVGCL_PATH)/*/*.mk))
