/*
 * velmora_mm_stub - while it is loaded, the kernel function that it is given answers a fixed value to the process that
 * loaded it, and does nothing: what a kernel refuses seldom, it refuses when a test wants it.
 *
 *   function=NAME answer=N     the function, and its answer
 *   major=N                    a character device that a module left behind; its number is given back at unload
 */
#include <linux/fs.h>
#include <linux/kprobes.h>
#include <linux/module.h>
#include <linux/sched.h>

static char *function;
static int answer;
static unsigned int major;
module_param(function, charp, 0);
module_param(answer, int, 0);
module_param(major, uint, 0);

static pid_t process;

/* Called before the function's first instruction: goes back to the caller at once. */
static int stub_enter(struct kprobe *probe, struct pt_regs *regs)
{
	if (current->tgid != process)
		return 0;
	regs->ARM_r0 = answer;
	regs->ARM_pc = regs->ARM_lr;
	return 1;
}

/* Only a probe with both handlers may change where it goes on. */
static void stub_entered(struct kprobe *probe, struct pt_regs *regs, unsigned long flags)
{
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
