/* SPDX-License-Identifier: (GPL-2.0 WITH Linux-syscall-note) OR Apache-2.0 */
/*
 * The Korva driver's control interface: the request codes and the records
 * that travel with them, shared by the driver (kernel code includes it as a
 * uapi header) and every program that talks to it. C, fixed-width types,
 * no padding: the records are the same for a 32-bit and a 64-bit program.
 * Every field is in the processor's native byte order.
 */
#ifndef _UAPI_QVR_KORVA_H
#define _UAPI_QVR_KORVA_H

#include <linux/ioctl.h>
#include <linux/types.h>

/* The software node, /dev/qvr_korva (a misc device of this name). */
#define QVR_KORVA_NODE_NAME "qvr_korva"

/* Heads every parameter read or write; `size` data bytes follow it directly. */
struct qvr_korva_param_desc {
	__u32 id;     /*  0: DSP parameter (command) identifier, QVR_KORVA_PARAM_... */
	__s32 size;   /*  4: number of data bytes after the descriptor */
	__s32 offset; /*  8: -1 in the parameter queries; in an upload, where in the
		       *     selected cache block the data begins (0) */
	__u32 device; /* 12: device selection; bit 31 set by the configurator */
};

/* Where one slot's tuning lies in the driver cache and how its payload divides.
 * Offsets of the areas are relative to the block, which begins at
 * kGlobalOffset; the block reaches as far as its furthest area. */
struct qvr_korva_cache_block {
	__u32 idx;           /*  0: cache block index */
	__u32 bitmask;       /*  4: the slot's device bitmask */
	__u32 kGlobalOffset; /*  8: byte offset of the block in the cache */
	__u32 preCmd;        /* 12: premix parameter, QVR_KORVA_PARAM_PREMIX */
	__u32 preSize;       /* 16: premix block size (the area at offset 0) */
	__u32 preOff;        /* 20: offset of the premix fade area */
	__u32 preFadeCmd;    /* 24: premix fade parameter, 0 for none */
	__u32 preFadeSize;   /* 28: premix fade area size */
	__u32 postOff;       /* 32: offset of the postmix block */
	__u32 postCmd;       /* 36: postmix parameter, QVR_KORVA_PARAM_POSTMIX */
	__u32 postSize;      /* 40: postmix block size */
	__u32 fadeOff;       /* 44: offset of the postmix fade area */
	__u32 postFadeCmd;   /* 48: postmix fade parameter, 0 for none */
	__u32 postFadeSize;  /* 52: postmix fade area size */
};

/* DSP parameter identifiers. */
#define QVR_KORVA_PARAM_DSP_DESCRIPTION 0x1001514CU /* query: text */
#define QVR_KORVA_PARAM_DSP_VERSION     0x1001514DU /* query: text */
#define QVR_KORVA_PARAM_PREMIX          0x10015100U /* premix block; id of the upload */
#define QVR_KORVA_PARAM_POSTMIX         0x1001522CU /* postmix block */

/* Largest cache the driver agrees to hold, and the most reply bytes it
 * writes for one parameter query (desc.size, zero-filled past the text). */
#define QVR_KORVA_MAX_CACHE_SIZE (64 * 1024 * 1024)
#define QVR_KORVA_MAX_REPLY      (64 * 1024)

/*
 * Request codes: Linux _IOC encoding, type 0xF2. The size field is that of
 * the declared argument type (an int or a pointer), not of the record behind
 * the pointer, so the four pointer requests differ between 32-bit and 64-bit
 * programs; a 64-bit kernel's compat_ioctl meets the 32-bit ones.
 *
 *   SET_CACHE_SIZE       arg -> __s32 cache size in bytes; clears every block
 *   GET_PARAM            arg -> param_desc + desc.size reply bytes (written back)
 *   SET_PARAM            arg -> param_desc + desc.size data bytes, into the
 *                        selected cache block at desc.offset
 *   SET_CACHE_BLOCK      arg -> cache_block; selects it for the next upload
 *   SET_VOLUME_CONTROLS  arg -> __u32 volume controls
 */
#define QVR_KORVA_IOCTL_TYPE 0xF2
#define QVR_KORVA_IOCTL_SET_CACHE_SIZE      _IOW(QVR_KORVA_IOCTL_TYPE, 1, __s32)
#define QVR_KORVA_IOCTL_GET_PARAM           _IOR(QVR_KORVA_IOCTL_TYPE, 2, struct qvr_korva_param_desc *)
#define QVR_KORVA_IOCTL_SET_PARAM           _IOW(QVR_KORVA_IOCTL_TYPE, 3, struct qvr_korva_param_desc *)
#define QVR_KORVA_IOCTL_SET_CACHE_BLOCK     _IOW(QVR_KORVA_IOCTL_TYPE, 4, struct qvr_korva_cache_block *)
#define QVR_KORVA_IOCTL_SET_VOLUME_CONTROLS _IOW(QVR_KORVA_IOCTL_TYPE, 9, __u32 *)

#endif /* _UAPI_QVR_KORVA_H */
