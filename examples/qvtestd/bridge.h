#ifndef QVTESTD_BRIDGE_H
#define QVTESTD_BRIDGE_H

/* Registers the show-server commands that reach the management commands
 * registered by qv_ui_init(app_name); call it after qv_ui_init. */
void bridge_init(const char *app_name);

#endif
