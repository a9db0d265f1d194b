/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A plug-in for qemu-user: prints how many instructions the program has executed. What it uses of the interface is
 * declared here as QEMU's documentation of TCG plugins gives it, since Debian has no package with the header.
 */
#include <inttypes.h>
#include <stdio.h>

typedef uint64_t qemu_plugin_id_t;
struct qemu_info_t;
struct qemu_plugin_tb;
enum qemu_plugin_cb_flags { QEMU_PLUGIN_CB_NO_REGS };
typedef void (*exit_callback)(qemu_plugin_id_t id, void *data);
typedef void (*translation_callback)(qemu_plugin_id_t id, struct qemu_plugin_tb *block);
typedef void (*execution_callback)(unsigned int processor, void *data);

void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, exit_callback callback, void *data);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, translation_callback callback);
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb *block, execution_callback callback,
                                          enum qemu_plugin_cb_flags flags, void *data);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *block);

/* Of the interface; QEMU refuses versions that it does not know. What is used here has not changed since 1. */
int qemu_plugin_version = QEMU_INTERFACE;

static uint64_t instructions; /* of a program with one thread */

static void onExecution(unsigned int processor, void *length) {
  (void)processor;
  instructions += (uintptr_t)length;
}

/* A block that is left early by an exception counts as whole. */
static void onTranslation(qemu_plugin_id_t id, struct qemu_plugin_tb *block) {
  (void)id;
  qemu_plugin_register_vcpu_tb_exec_cb(block, onExecution, QEMU_PLUGIN_CB_NO_REGS,
                                       (void *)(uintptr_t)qemu_plugin_tb_n_insns(block));
}

static void onExit(qemu_plugin_id_t id, void *data) {
  (void)id, (void)data;
  fprintf(stderr, "%" PRIu64 "\n", instructions);
}

int qemu_plugin_install(qemu_plugin_id_t id, const struct qemu_info_t *info, int count, char **arguments) {
  (void)info, (void)count, (void)arguments;
  qemu_plugin_register_vcpu_tb_trans_cb(id, onTranslation);
  qemu_plugin_register_atexit_cb(id, onExit, NULL);
  return 0;
}
