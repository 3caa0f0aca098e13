/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * Calls that are made to fail. Only in test builds.
 */
#ifndef KERNEL_SERVICES_RULES_FAULTS_H
#define KERNEL_SERVICES_RULES_FAULTS_H

struct dentry;

/* Adds its file to the folder. */
void rules_faults_start(struct dentry *folder);

#endif
