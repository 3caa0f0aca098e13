/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * Names under which modules find each other's functions when they run.
 */
#ifndef INTER_MODULE_H
#define INTER_MODULE_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The address that a loaded module offers under `name`, or null. It stays good, and that module
 * stays loaded, until the name is put. Process context.
 */
const void *inter_module_get(const char *name);
void inter_module_put(const char *name);

#ifdef __cplusplus
}
#endif

#endif
