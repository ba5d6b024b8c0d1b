/*
 * A qemu-user plugin that counts the guest instructions a process executes,
 * every thread together, the same way whatever the guest's architecture: the
 * CPU stand-in of bench/target.sh. The count starts at the process's first
 * system call numbered `start` whose first argument is `first` (when given;
 * default: from the start) and is appended to `out` (default: standard error)
 * as "pid instructions" when the process exits; a process that counted nothing
 * writes nothing.
 *
 *   qemu-mipsel -plugin ./qemu_insn_count.so,start=4192,first=15,out=counts.txt prog
 *   (prctl(PR_SET_NAME, ...) on MIPS o32)
 *
 * Built against qemu-plugin.h of the qemu that runs it (Debian's qemu source).
 */
#include <fcntl.h>
#include <qemu-plugin.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

QEMU_PLUGIN_EXPORT int qemu_plugin_version = QEMU_PLUGIN_VERSION;

static uint64_t instructions; /* added to atomically: guest threads run in parallel */
static int counting = 1;
static long start_syscall = -1;
static long start_arg = -1;
static const char *out_path;

static void on_tb_exec(unsigned int vcpu, void *n) {
  (void)vcpu;
  if (__atomic_load_n(&counting, __ATOMIC_RELAXED))
    __atomic_fetch_add(&instructions, (uint64_t)(uintptr_t)n, __ATOMIC_RELAXED);
}

static void on_tb_trans(qemu_plugin_id_t id, struct qemu_plugin_tb *tb) {
  (void)id;
  qemu_plugin_register_vcpu_tb_exec_cb(tb, on_tb_exec, QEMU_PLUGIN_CB_NO_REGS,
                                       (void *)(uintptr_t)qemu_plugin_tb_n_insns(tb));
}

static void on_syscall(qemu_plugin_id_t id, unsigned int vcpu, int64_t num, uint64_t a1,
                       uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7,
                       uint64_t a8) {
  (void)id, (void)vcpu, (void)a2, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
  if (num == start_syscall && (start_arg < 0 || (long)a1 == start_arg) &&
      !__atomic_exchange_n(&counting, 1, __ATOMIC_RELAXED))
    __atomic_store_n(&instructions, 0, __ATOMIC_RELAXED);
}

static void report(qemu_plugin_id_t id, void *p) {
  (void)id, (void)p;
  const uint64_t n = __atomic_load_n(&instructions, __ATOMIC_RELAXED);
  if (n == 0) return;
  char line[64];
  const int len = snprintf(line, sizeof line, "%ld %llu\n", (long)getpid(), (unsigned long long)n);
  const int fd = out_path ? open(out_path, O_WRONLY | O_CREAT | O_APPEND, 0644) : 2;
  if (fd >= 0 && write(fd, line, (size_t)len) != len) perror("qemu_insn_count");
  if (out_path && fd >= 0) close(fd);
}

QEMU_PLUGIN_EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t *info, int argc,
                                           char **argv) {
  (void)info;
  for (int i = 0; i < argc; ++i) {
    if (strncmp(argv[i], "start=", 6) == 0) {
      start_syscall = strtol(argv[i] + 6, NULL, 10);
      counting = 0;
    } else if (strncmp(argv[i], "first=", 6) == 0) {
      start_arg = strtol(argv[i] + 6, NULL, 10);
    } else if (strncmp(argv[i], "out=", 4) == 0) {
      out_path = argv[i] + 4;
    } else {
      fprintf(stderr, "qemu_insn_count: unknown argument %s\n", argv[i]);
      return -1;
    }
  }
  qemu_plugin_register_vcpu_tb_trans_cb(id, on_tb_trans);
  if (start_syscall >= 0) qemu_plugin_register_vcpu_syscall_cb(id, on_syscall);
  qemu_plugin_register_atexit_cb(id, report, NULL);
  return 0;
}
