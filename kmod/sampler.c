// SPDX-License-Identifier: GPL-2.0 OR MIT
/*
 * The probe and the sampler.
 *
 * The probe runs on every context switch, with interrupts off, on all CPUs at once. It writes only
 * memory of its own CPU and takes no lock.
 *
 * The sampler visits all threads of the machine for each sample. It looks at them under RCU, a few
 * at a time, so that a process may end meanwhile, and sleeps only in between.
 */
#include "sampler.h"

#include <linux/file.h>
#include <linux/fs.h>
#include <linux/hrtimer.h>
#include <linux/idr.h>
#include <linux/kernel_stat.h>
#include <linux/kthread.h>
#include <linux/math64.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/percpu.h>
#include <linux/pid.h>
#include <linux/pid_namespace.h>
#include <linux/sched/loadavg.h>
#include <linux/sched/signal.h>
#include <linux/sched/task.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/swap.h>
#include <linux/tick.h>
#include <linux/tracepoint.h>
#include <linux/version.h>
#include <linux/vmstat.h>
#include <trace/events/sched.h>

#include "command.h"
#include "frame.h"
#include "ring.h"

#define TICK_NS (NSEC_PER_SEC / 250) /* the format's clock tick */
#define NOTES 4096		     /* a power of two */
#define CHUNK 64		     /* threads that are visited without a pause */
#define BUSY_DIVISOR 10		     /* the sampler takes at most one part of so many of a CPU */

static unsigned int rate = 20;
module_param(rate, uint, 0644);
MODULE_PARM_DESC(rate, "Samples a second, 1 to 1000");

static bool every_process;
module_param(every_process, bool, 0644);
MODULE_PARM_DESC(every_process, "Report also processes that did not run since the last sample");

DECLARE_WAIT_QUEUE_HEAD(vestra_readers);

/* ------------------------------ The probe ------------------------------ */

/*
 * What the probe writes, for each CPU. A process shares its note with those whose ids are equal
 * modulo NOTES, and a note is believed again after 65536 samples: such a process is reported without
 * having run, which does no harm.
 */
struct notes {
	u16 ran[NOTES];		/* the generation in which such a process last left the CPU */
	pid_t running;		/* the process on the CPU */
	unsigned long switches; /* wraps */
	u8 core;		/* not the probe's: the core that this CPU counts for */
};

static struct notes __percpu *notes;
static u16 generation; /* one between two samples; the sampler's */
static struct tracepoint *switch_tracepoint;

#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 18, 0)
static void notrace note_switch(void *unused, bool preempt, struct task_struct *prev,
				struct task_struct *next, unsigned int prev_state)
#else
static void notrace note_switch(void *unused, bool preempt, struct task_struct *prev,
				struct task_struct *next)
#endif
{
	struct notes *mine = this_cpu_ptr(notes);

	WRITE_ONCE(mine->ran[prev->tgid % NOTES], READ_ONCE(generation));
	WRITE_ONCE(mine->running, next->tgid);
	WRITE_ONCE(mine->switches, mine->switches + 1);
}

static void find_switch_tracepoint(struct tracepoint *tracepoint, void *unused)
{
	if (strcmp(tracepoint->name, "sched_switch") == 0)
		switch_tracepoint = tracepoint;
}

/*
 * True if the process ran in generation `which` or since. The one after that has begun, and what
 * switches all the time has overwritten its note with it. A switch at the very moment when the
 * generation changes may be missed. The next one is not.
 */
static bool ran_since(u16 which, pid_t process)
{
	int cpu;

	for_each_possible_cpu(cpu) {
		const struct notes *of_cpu = per_cpu_ptr(notes, cpu);
		const u16 age = READ_ONCE(of_cpu->ran[process % NOTES]) - which;

		if (age <= 1 || READ_ONCE(of_cpu->running) == process)
			return true;
	}
	return false;
}

/* ------------------------------ State of the sampler ------------------------------ */

struct settings {
	struct vestra_filter filter;
	bool disk_reads;
	bool disk_writes;
	int temperature; /* degrees Celsius; 0 until the daemon sends it */
};

static DEFINE_SPINLOCK(settings_lock); /* guards the next */
static struct settings settings;

/* The thread's, and of whoever starts and stops it. */
struct sampler {
	struct task_struct *thread;
	struct file *meminfo; /* null if it could not be opened */

	struct settings settings; /* of this sample */
	struct vestra_machine machine;
	struct vestra_memory memory;
	u16 before; /* the generation that this sample reports */

	unsigned int processes; /* counted by this walk */
	unsigned int running;

	u64 window_start; /* ns: of the second in which switches are counted */
	unsigned long window_switches;
	bool whole_second; /* the rate is that of a whole second */
	u64 swap_read;	   /* ns: when the swap figures were read */

	struct vestra_frame frames[VESTRA_CORES];
	char text[1024];
};

static struct sampler *sampler;
static u64 samples;

/* ------------------------------ CPUs ------------------------------ */

static u64 to_ticks(u64 ns)
{
	return div_u64(ns, TICK_NS);
}

/* As /proc/stat counts it: the idle tick's own clock, where it runs. */
static u64 idle_ns(int cpu, u64 (*clock)(int cpu, u64 *now), u64 counted)
{
	const u64 us = cpu_online(cpu) ? clock(cpu, NULL) : -1ULL;

	return us == -1ULL ? counted : us * NSEC_PER_USEC;
}

/*
 * CPUs and cores lie on a line of 4 x `cpus` units; a CPU is 4 units long, a core `cpus`. Returns
 * how many units CPU `cpu` and core `core` have in common.
 */
static unsigned int overlap(unsigned int cpu, unsigned int core, unsigned int cpus)
{
	const unsigned int begin = max(cpu * VESTRA_CORES, core * cpus);
	const unsigned int end = min((cpu + 1) * VESTRA_CORES, (core + 1) * cpus);

	return end > begin ? end - begin : 0;
}

struct cpu_times {
	u64 user, system, idle, iowait; /* ns */
};

static struct cpu_times read_cpu(int cpu)
{
	struct kernel_cpustat times;
	const u64 *stat = times.cpustat;

	kcpustat_cpu_fetch(&times, cpu);
	return (struct cpu_times){
		.user = stat[CPUTIME_USER] + stat[CPUTIME_NICE],
		.system = stat[CPUTIME_SYSTEM] + stat[CPUTIME_IRQ] + stat[CPUTIME_SOFTIRQ],
		.idle = idle_ns(cpu, get_cpu_idle_time_us, stat[CPUTIME_IDLE]),
		.iowait = idle_ns(cpu, get_cpu_iowait_time_us, stat[CPUTIME_IOWAIT]),
	};
}

static void read_cores(struct vestra_machine *machine, int temperature)
{
	struct vestra_core sum[VESTRA_CORES] = {};
	const unsigned int cpus = num_present_cpus();
	unsigned int i = 0;
	int cpu, core;

	for_each_present_cpu(cpu) {
		/*
		 * A machine of 32 bits reads a counter in halves, and may be 2^32 ns ahead of it.
		 * Of two readings, the lower one is not.
		 */
		const struct cpu_times one = read_cpu(cpu), two = read_cpu(cpu);
		const u64 user = to_ticks(min(one.user, two.user));
		const u64 system = to_ticks(min(one.system, two.system));
		const u64 idle = to_ticks(min(one.idle, two.idle));
		const u64 iowait = to_ticks(min(one.iowait, two.iowait));

		for (core = 0; core < VESTRA_CORES; core++) {
			const unsigned int share = overlap(i, core, cpus);

			sum[core].user += user * share;
			sum[core].system += system * share;
			sum[core].idle += idle * share;
			sum[core].iowait += iowait * share;
		}
		per_cpu_ptr(notes, cpu)->core = min(i * VESTRA_CORES / cpus, VESTRA_CORES - 1U);
		i++;
	}
	for (core = 0; core < VESTRA_CORES; core++) {
		struct vestra_core *kept = &machine->cores[core];

		/* Idle and I/O wait times may go back, also when a CPU is switched off. */
		kept->user = max(kept->user, div_u64(sum[core].user, cpus));
		kept->system = max(kept->system, div_u64(sum[core].system, cpus));
		kept->idle = max(kept->idle, div_u64(sum[core].idle, cpus));
		kept->iowait = max(kept->iowait, div_u64(sum[core].iowait, cpus));
		kept->temperature = temperature;
	}
}

static unsigned long count_switches(void)
{
	unsigned long sum = 0;
	int cpu;

	for_each_possible_cpu(cpu)
		sum += READ_ONCE(per_cpu_ptr(notes, cpu)->switches);
	return sum;
}

/* The rate over the last whole second. During the first one, over what has passed of it. */
static void read_switches(struct sampler *s)
{
	const u64 passed = s->machine.time - s->window_start;
	const unsigned long switches = count_switches();

	if (passed >= NSEC_PER_SEC || (passed > 0 && !s->whole_second)) {
		const u64 grown = (u64)(switches - s->window_switches) * NSEC_PER_SEC;

		s->machine.switches = div64_u64(grown + passed / 2, passed);
	}
	if (passed >= NSEC_PER_SEC) {
		s->window_start = s->machine.time;
		s->window_switches = switches;
		s->whole_second = true;
	}
}

/* ------------------------------ Memory ------------------------------ */

static u64 kib(unsigned long pages)
{
	return (u64)pages << (PAGE_SHIFT - 10);
}

static u64 line_of(const char *text, const char *name)
{
	const char *line = strstr(text, name);
	u64 number = 0;

	if (line && sscanf(line + strlen(name), " %llu", &number) != 1)
		number = 0;
	return number;
}

/* Modules cannot ask for the size of the swap space: /proc/meminfo is read, once a second. */
static void read_swap(struct sampler *s)
{
	loff_t start = 0;
	ssize_t size;
	u64 swap_free;

	if (!s->meminfo || (s->swap_read && s->machine.time - s->swap_read < NSEC_PER_SEC))
		return;
	s->swap_read = s->machine.time;
	size = kernel_read(s->meminfo, s->text, sizeof(s->text) - 1, &start);
	s->text[max_t(ssize_t, size, 0)] = '\0';
	s->memory.swap_total = line_of(s->text, "\nSwapTotal:");
	swap_free = line_of(s->text, "\nSwapFree:");
	s->memory.swap_used = s->memory.swap_total - min(swap_free, s->memory.swap_total);
}

static unsigned long swap_cache_pages(void)
{
#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 12, 0) && defined(CONFIG_SWAP)
	return global_node_page_state(NR_SWAPCACHE);
#else
	return 0;
#endif
}

static void read_memory(struct sampler *s)
{
	struct vestra_memory *memory = &s->memory;
	long cached, available;
	struct sysinfo info = {};

	si_meminfo(&info);
	cached = global_node_page_state(NR_FILE_PAGES) - swap_cache_pages() - info.bufferram;
	available = si_mem_available();
	memory->processes = s->processes;
	memory->load_tenths = ((u64)avenrun[0] * 10 + FIXED_1 / 2) >> FSHIFT;
	memory->total = kib(info.totalram);
	memory->dirty = kib(global_node_page_state(NR_FILE_DIRTY));
	memory->free = kib(info.freeram);
	memory->buffers = kib(info.bufferram);
	memory->shared = kib(info.sharedram);
	memory->cached = kib(max(cached, 0L));
	memory->available = kib(max(available, 0L));
	read_swap(s);
}

/* ------------------------------ Processes ------------------------------ */

/*
 * A counter that its thread may be changing. Where it is read in halves, only the same value twice
 * is one that it had.
 */
static u64 read_counter(const u64 *counter)
{
	u64 value = READ_ONCE(*counter);
	u64 again;

	while (!IS_ENABLED(CONFIG_64BIT) && (again = READ_ONCE(*counter)) != value)
		value = again;
	return value;
}

struct usage {
	u64 run;	   /* ns: on a CPU, exactly */
	u64 user, system;  /* ns: as the clock tick found it */
	u64 read, written; /* bytes from and to storage */
};

static void add_io(struct usage *usage, const struct task_io_accounting *io)
{
#ifdef CONFIG_TASK_IO_ACCOUNTING
	usage->read += read_counter(&io->read_bytes);
	usage->written += read_counter(&io->write_bytes);
#endif
}

/*
 * Of all threads, those that have ended included. A thread that ends meanwhile is counted once, unless
 * others do in every one of the tries.
 */
static void read_usage(struct task_struct *task, struct usage *usage)
{
	struct signal_struct *signal = task->signal;
	struct task_struct *thread;
	unsigned int seq;
	int tries = 10;

	do {
		seq = read_seqbegin(&signal->stats_lock);
		*usage = (struct usage){
			.run = signal->sum_sched_runtime,
			.user = signal->utime,
			.system = signal->stime,
		};
		add_io(usage, &signal->ioac);
		for_each_thread(task, thread) {
			usage->run += read_counter(&thread->se.sum_exec_runtime);
			usage->user += read_counter(&thread->utime);
			usage->system += read_counter(&thread->stime);
			add_io(usage, &thread->ioac);
		}
	} while (read_seqretry(&signal->stats_lock, seq) && --tries > 0);
}

/*
 * How long the process ran is known. How much of it was user time is what the clock tick happened to
 * find. As in /proc, the former is divided in the proportion of the latter. The sum never goes back.
 */
static void split_time(const struct usage *usage, struct vestra_process *process)
{
	const u64 ticks = to_ticks(usage->run);
	const u64 guessed = usage->user + usage->system;
	const int excess = max(fls64(guessed) - 32, 0);

	if (guessed == 0)
		process->system = 0;
	else
		process->system =
			mul_u64_u32_div(ticks, usage->system >> excess, guessed >> excess);
	process->system = min(process->system, ticks);
	process->user = ticks - process->system;
}

/* Any thread has the memory of its process. The first may have ended before the others. */
static void read_resident(struct task_struct *task, struct vestra_process *process)
{
	struct task_struct *thread;

	process->rss = 0;
	process->swap = 0;
	if (task->flags & PF_KTHREAD)
		return;
	for_each_thread(task, thread) {
		struct mm_struct *mm;

		task_lock(thread); /* keeps the memory while it is held */
		mm = thread->mm;
		if (mm) {
			process->rss = kib(get_mm_rss(mm));
			process->swap = kib(get_mm_counter(mm, MM_SWAPENTS));
		}
		task_unlock(thread);
		if (mm)
			return;
	}
}

static void read_process(const struct sampler *s, struct task_struct *task,
			 struct vestra_process *process)
{
	struct usage usage;

	process->pid = task->tgid;
	process->parent = rcu_dereference(task->real_parent)->tgid;
	read_usage(task, &usage);
	split_time(&usage, process);
	process->disk_read = s->settings.disk_reads ? usage.read >> 10 : 0;
	process->disk_written = s->settings.disk_writes ? usage.written >> 10 : 0;
	read_resident(task, process);
}

static bool is_running(const struct task_struct *task)
{
#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 14, 0)
	return READ_ONCE(task->__state) == TASK_RUNNING;
#else
	return READ_ONCE(task->state) == TASK_RUNNING;
#endif
}

/*
 * Visits threads from id *id on, at most CHUNK, and counts them. Returns the core of the first
 * process to report, with its figures in *process; otherwise -EAGAIN, or -ENOENT after the last.
 */
static int next_process(struct sampler *s, int *id, struct vestra_process *process)
{
	int result = -EAGAIN;
	int left;

	rcu_read_lock();
	for (left = CHUNK; left > 0 && result == -EAGAIN; left--) {
		struct pid *pid = idr_get_next(&init_pid_ns.idr, id);
		struct task_struct *task;

		if (!pid) {
			result = -ENOENT;
			break;
		}
		++*id;
		task = pid_task(pid, PIDTYPE_PID);
		if (!task)
			continue;
		s->running += is_running(task);
		if (!thread_group_leader(task))
			continue;
		s->processes++;
		if (!READ_ONCE(every_process) && !ran_since(s->before, task->tgid))
			continue;
		get_task_comm(process->name, task);
		if (!vestra_filter_reports(&s->settings.filter, task->tgid, process->name))
			continue;
		read_process(s, task, process);
		result = per_cpu_ptr(notes, task_cpu(task))->core;
	}
	rcu_read_unlock();
	return result;
}

/* ------------------------------ Samples ------------------------------ */

static void write_process(struct sampler *s, int core, const struct vestra_process *process)
{
	struct vestra_frame *frame = &s->frames[core];

	if (frame->size == 0)
		vestra_frame_begin(frame, VESTRA_SWITCH_FRAME, core);
	vestra_frame_add_process(frame, &s->machine, process);
	if (vestra_frame_full(frame))
		vestra_ring_put(frame);
}

/* Counts processes and threads, and writes the processes that are to be reported. */
static void walk(struct sampler *s, bool write)
{
	static const struct vestra_process nobody = {.name = "swapper"};
	struct vestra_process process;
	bool any = false;
	int id = 1;
	int core;

	s->processes = 0;
	s->running = 0;
	while ((core = next_process(s, &id, &process)) != -ENOENT) {
		if (write && core >= 0) {
			write_process(s, core, &process);
			any = true;
		}
		cond_resched();
	}
	if (!write)
		return;
	if (!any)
		write_process(s, 0, &nobody); /* so that the cores' counters are never missing */
	for (core = 0; core < VESTRA_CORES; core++)
		if (s->frames[core].size > 0)
			vestra_ring_put(&s->frames[core]);
}

/* How many threads run is known after a walk: processes are sent with the number of the last one. */
static void sample(struct sampler *s, bool write)
{
	s->before = generation;
	WRITE_ONCE(generation, (u16)(generation + 1));
	spin_lock(&settings_lock);
	s->settings = settings;
	spin_unlock(&settings_lock);
	s->machine.time = ktime_get_ns();
	s->machine.running = s->running;
	read_cores(&s->machine, s->settings.temperature);
	read_switches(s);
	walk(s, write);
	if (!write)
		return;
	s->machine.running = s->running;
	read_memory(s);
	vestra_frame_begin(&s->frames[0], VESTRA_MEMINFO_FRAME, 0);
	vestra_frame_add_memory(&s->frames[0], &s->machine, &s->memory);
	vestra_ring_put(&s->frames[0]);
	WRITE_ONCE(samples, samples + 1);
	wake_up_interruptible(&vestra_readers);
}

static int run_sampler(void *data)
{
	struct sampler *s = data;
	ktime_t next = ktime_get();
	const u64 *run_time = &current->se.sum_exec_runtime; /* up to date after a sleep */
	u64 used = read_counter(run_time);
	bool write = false; /* the first sample has nothing to compare with */

	while (!kthread_should_stop()) {
		const u64 period = NSEC_PER_SEC / clamp(READ_ONCE(rate), 1U, 1000U);
		const u64 cost = read_counter(run_time) - used;

		used += cost;
		sample(s, write);
		write = true;
		/* A sample that came late does not make the next ones come early. */
		next = ktime_add_ns(next, max(period, cost * BUSY_DIVISOR));
		if (ktime_before(next, ktime_get()))
			next = ktime_get();
		set_current_state(TASK_IDLE);
		if (!kthread_should_stop())
			schedule_hrtimeout(&next, HRTIMER_MODE_ABS);
		__set_current_state(TASK_RUNNING);
	}
	return 0;
}

/* ------------------------------ Start and stop ------------------------------ */

int vestra_sampler_start(void)
{
	struct sampler *s;
	int result;

	s = kzalloc(sizeof(*s), GFP_KERNEL);
	if (!s)
		return -ENOMEM;
	s->meminfo = filp_open("/proc/meminfo", O_RDONLY, 0);
	if (IS_ERR(s->meminfo))
		s->meminfo = NULL;
	s->window_start = ktime_get_ns();
	s->window_switches = count_switches();
	result = tracepoint_probe_register(switch_tracepoint, note_switch, NULL);
	if (result)
		goto close;
	s->thread = kthread_run(run_sampler, s, "vestra-sampler");
	if (IS_ERR(s->thread)) {
		result = PTR_ERR(s->thread);
		goto unregister;
	}
	sampler = s;
	return 0;

unregister:
	tracepoint_probe_unregister(switch_tracepoint, note_switch, NULL);
	tracepoint_synchronize_unregister();
close:
	if (s->meminfo)
		fput(s->meminfo);
	kfree(s);
	return result;
}

void vestra_sampler_stop(void)
{
	struct sampler *s = sampler;

	kthread_stop(s->thread);
	tracepoint_probe_unregister(switch_tracepoint, note_switch, NULL);
	tracepoint_synchronize_unregister();
	if (s->meminfo)
		fput(s->meminfo);
	kfree(s);
	sampler = NULL;
}

int vestra_sampler_create(void)
{
	check_trace_callback_type_sched_switch(note_switch);
	for_each_kernel_tracepoint(find_switch_tracepoint, NULL);
	if (!switch_tracepoint)
		return -ENODEV;
	notes = alloc_percpu(struct notes);
	return notes ? 0 : -ENOMEM;
}

void vestra_sampler_destroy(void)
{
	free_percpu(notes);
}

void vestra_sampler_apply(const struct vestra_command *command)
{
	spin_lock(&settings_lock);
	switch (command->kind) {
	case VESTRA_TEMPERATURE:
		settings.temperature = command->value;
		break;
	case VESTRA_READS_ON:
	case VESTRA_READS_OFF:
		settings.disk_reads = command->kind == VESTRA_READS_ON;
		break;
	case VESTRA_WRITES_ON:
	case VESTRA_WRITES_OFF:
		settings.disk_writes = command->kind == VESTRA_WRITES_ON;
		break;
	default:
		vestra_filter_apply(&settings.filter, command);
	}
	spin_unlock(&settings_lock);
}

u64 vestra_sampler_switches(void)
{
	return count_switches();
}

u64 vestra_sampler_samples(void)
{
	return READ_ONCE(samples);
}
