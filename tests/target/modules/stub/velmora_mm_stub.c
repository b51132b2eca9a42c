/*
 * velmora_mm_stub - while it is loaded, the kernel function that it is given answers a fixed value to the process that
 * loaded it, and does nothing: what a kernel refuses seldom, it refuses when a test wants it.
 *
 *   function=NAME answer=N     the function, and its answer
 *   major=N                    a character device that a module left behind; its number is given back at unload
 */
#include <linux/kprobes.h>

#include "../compat.h"

static char *function;
static int answer;
static unsigned int major;
module_param(function, charp, 0);
module_param(answer, int, 0);
module_param(major, uint, 0);

static pid_t process;
static struct pt_regs at_entry; /* the process has one thread, and is not interrupted between the two handlers */

/* Before the function's first instruction. */
static int stub_enter(struct kprobe *probe, struct pt_regs *regs)
{
	if (current->tgid == process)
		at_entry = *regs;
	return 0;
}

/*
 * After it: as if it had not been run, back to the caller. A handler that goes elsewhere before the first instruction
 * has to tidy up after itself in some kernels and must not in others; this one has no part in that.
 */
static void stub_entered(struct kprobe *probe, struct pt_regs *regs, unsigned long flags)
{
	if (current->tgid != process)
		return;
	*regs = at_entry;
	regs->ARM_r0 = answer;
	regs->ARM_pc = regs->ARM_lr;
}

static struct kprobe probe = { .pre_handler = stub_enter, .post_handler = stub_entered };

static int __init stub_init(void)
{
	process = current->tgid;
	probe.symbol_name = function;
	return function ? register_kprobe(&probe) : 0;
}

static void __exit stub_exit(void)
{
	if (function)
		unregister_kprobe(&probe);
	if (major)
		unregister_chrdev(major, "");
}

MODULE_LICENSE("GPL");
module_init(stub_init);
module_exit(stub_exit);
