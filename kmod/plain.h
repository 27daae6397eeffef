/* SPDX-License-Identifier: GPL-2.0 OR MIT */
/*
 * What frame.c and command.c need of the kernel. Neither needs more than a C compiler otherwise, so
 * the tests of this repository build both as a program of this machine.
 */
#ifndef VESTRA_PLAIN_H
#define VESTRA_PLAIN_H

#ifdef __KERNEL__
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/types.h>
#else
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>
typedef uint8_t u8;
typedef uint32_t u32;
typedef uint64_t u64;
typedef int64_t s64;
#endif

#endif
