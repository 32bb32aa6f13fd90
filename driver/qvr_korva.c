// SPDX-License-Identifier: GPL-2.0-only
/*
 * Reference driver for the Korva control interface (uapi qvr_korva.h): the
 * software node /dev/qvr_korva as a misc device that answers the five
 * requests as a device's driver must, and keeps the tuning cache in memory
 * (no DSP behind it). It shows what the configurator needs from a driver and
 * lets the configurator run against a real kernel in a virtual machine.
 *
 * Each request is checked by its whole code (type, number, direction and
 * argument size); the records are copied with copy_from_user/copy_to_user.
 * Refusals, and nothing changes when one is given:
 *   -ENOTTY  a code this driver does not know (also a 32-bit code when the
 *            compat handler is left out: the kernel answers it so);
 *   -EFAULT  an argument that cannot be read or written;
 *   -EINVAL  a cache size below 0 or above QVR_KORVA_MAX_CACHE_SIZE; a cache
 *            block whose index or extent lies outside the cache; an upload
 *            before a cache block is selected, with a negative size or
 *            offset, or reaching past its block; a query of an unknown
 *            parameter or with a negative size;
 *   -ENOMEM  no memory for the cache or an upload.
 *
 * A 32-bit program on a 64-bit kernel sends the four pointer requests with a
 * 4-byte size field; compat_ioctl maps them to the native codes and converts
 * the pointer with compat_ptr(). The records have no pointers and no padding,
 * so they need no translation.
 *
 * For tests, debugfs holds qvr_korva/cache (the whole cache, read-only),
 * qvr_korva/volume and qvr_korva/requests (requests answered since load).
 * Module parameters inject what a device can do: the node registered late,
 * one occurrence of a request refused, no compat handler.
 */
#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/compat.h>
#include <linux/debugfs.h>
#include <linux/fs.h>
#include <linux/math64.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include <linux/workqueue.h>

#include "qvr_korva.h"

static char *dsp_version = "KORVA-REF 1.1.0";
module_param(dsp_version, charp, 0444);
MODULE_PARM_DESC(dsp_version, "reply text of the version query");

static char *dsp_description = "Reference Korva driver (qvr_korva)";
module_param(dsp_description, charp, 0444);
MODULE_PARM_DESC(dsp_description, "reply text of the description query");

static unsigned int register_delay_ms;
module_param(register_delay_ms, uint, 0444);
MODULE_PARM_DESC(register_delay_ms, "register the node this many ms after loading (0: at once)");

static char *refuse_request = "";
module_param(refuse_request, charp, 0444);
MODULE_PARM_DESC(refuse_request, "request to refuse once: SET_CACHE_SIZE, GET_PARAM, SET_PARAM, "
		 "SET_CACHE_BLOCK or SET_VOLUME_CONTROLS");

static unsigned int refuse_occurrence = 1;
module_param(refuse_occurrence, uint, 0444);
MODULE_PARM_DESC(refuse_occurrence, "which occurrence of refuse_request to refuse (from 1)");

static int refuse_errno = EIO;
module_param(refuse_errno, int, 0444);
MODULE_PARM_DESC(refuse_errno, "errno of that refusal");

static bool no_compat;
module_param(no_compat, bool, 0444);
MODULE_PARM_DESC(no_compat, "leave out the compat_ioctl handler (32-bit callers get ENOTTY)");

/* The requests by number, with the names the tools use. */
static const struct {
	unsigned int code;
	const char *name;
} requests[] = {
	{ QVR_KORVA_IOCTL_SET_CACHE_SIZE, "SET_CACHE_SIZE" },
	{ QVR_KORVA_IOCTL_GET_PARAM, "GET_PARAM" },
	{ QVR_KORVA_IOCTL_SET_PARAM, "SET_PARAM" },
	{ QVR_KORVA_IOCTL_SET_CACHE_BLOCK, "SET_CACHE_BLOCK" },
	{ QVR_KORVA_IOCTL_SET_VOLUME_CONTROLS, "SET_VOLUME_CONTROLS" },
};

static struct {
	struct mutex lock;
	u8 *cache;
	size_t cache_size;
	struct qvr_korva_cache_block selected;
	bool have_selected;
	u32 volume;
	unsigned int occurrences[ARRAY_SIZE(requests)];
	unsigned int answered;
	struct debugfs_blob_wrapper cache_blob;
	struct dentry *debugfs;
	struct delayed_work late_register;
	bool registered;
} korva;

/* End of the furthest area the descriptor lays out, from the block's start. */
static u64 block_extent(const struct qvr_korva_cache_block *b)
{
	u64 end = b->preSize;

	end = max(end, (u64)b->preOff + b->preFadeSize);
	end = max(end, (u64)b->postOff + b->postSize);
	return max(end, (u64)b->fadeOff + b->postFadeSize);
}

static long set_cache_size(void __user *arg)
{
	s32 size;
	u8 *cache = NULL;

	if (copy_from_user(&size, arg, sizeof(size)))
		return -EFAULT;
	if (size < 0 || size > QVR_KORVA_MAX_CACHE_SIZE)
		return -EINVAL;
	if (size > 0) {
		cache = vzalloc(size);
		if (!cache)
			return -ENOMEM;
	}
	vfree(korva.cache);
	korva.cache = cache;
	korva.cache_size = size;
	korva.have_selected = false;
	korva.cache_blob.data = cache;
	korva.cache_blob.size = size;
	return 0;
}

static long set_cache_block(void __user *arg)
{
	struct qvr_korva_cache_block block;
	u64 extent;

	if (copy_from_user(&block, arg, sizeof(block)))
		return -EFAULT;
	/* The block, and every block before it at the same extent, in the cache. */
	extent = block_extent(&block);
	if ((u64)block.kGlobalOffset + extent > korva.cache_size ||
	    (extent && block.idx >= div64_u64(korva.cache_size, extent)))
		return -EINVAL;
	korva.selected = block;
	korva.have_selected = true;
	return 0;
}

static long set_param(void __user *arg)
{
	struct qvr_korva_param_desc desc;
	u8 *data;

	if (copy_from_user(&desc, arg, sizeof(desc)))
		return -EFAULT;
	if (!korva.have_selected || desc.size < 0 || desc.offset < 0 ||
	    (u64)desc.offset + desc.size > block_extent(&korva.selected))
		return -EINVAL;
	/* Copied aside first: a fault part way leaves the cache as it was. */
	data = kvmalloc(max_t(s32, desc.size, 1), GFP_KERNEL);
	if (!data)
		return -ENOMEM;
	if (copy_from_user(data, (u8 __user *)arg + sizeof(desc), desc.size)) {
		kvfree(data);
		return -EFAULT;
	}
	if (desc.size)
		memcpy(korva.cache + korva.selected.kGlobalOffset + desc.offset, data, desc.size);
	kvfree(data);
	return 0;
}

static long get_param(void __user *arg)
{
	struct qvr_korva_param_desc desc;
	const char *text;
	size_t reply_size;
	char *reply;
	long ret = 0;

	if (copy_from_user(&desc, arg, sizeof(desc)))
		return -EFAULT;
	if (desc.id == QVR_KORVA_PARAM_DSP_VERSION)
		text = dsp_version;
	else if (desc.id == QVR_KORVA_PARAM_DSP_DESCRIPTION)
		text = dsp_description;
	else
		return -EINVAL;
	if (desc.size < 0)
		return -EINVAL;
	/* desc.size reply bytes: the text, cut to fit, then zeros. */
	reply_size = min_t(size_t, desc.size, QVR_KORVA_MAX_REPLY);
	reply = kzalloc(max_t(size_t, reply_size, 1), GFP_KERNEL);
	if (!reply)
		return -ENOMEM;
	memcpy(reply, text, min(strlen(text), reply_size));
	if (copy_to_user((u8 __user *)arg + sizeof(desc), reply, reply_size))
		ret = -EFAULT;
	kfree(reply);
	return ret;
}

static long set_volume_controls(void __user *arg)
{
	u32 volume;

	if (copy_from_user(&volume, arg, sizeof(volume)))
		return -EFAULT;
	korva.volume = volume;
	return 0;
}

/* `code` is a native code; `caller` the code as it arrived. */
static long korva_request(unsigned int code, unsigned int caller, void __user *arg)
{
	unsigned int i, occurrence;
	long ret;

	for (i = 0; i < ARRAY_SIZE(requests); i++)
		if (requests[i].code == code)
			break;
	if (i == ARRAY_SIZE(requests)) {
		pr_info("request 0x%08X: unknown, ENOTTY\n", caller);
		return -ENOTTY;
	}

	mutex_lock(&korva.lock);
	occurrence = ++korva.occurrences[i];
	if (occurrence == refuse_occurrence &&
	    strcmp(refuse_request, requests[i].name) == 0) {
		ret = -abs(refuse_errno);
	} else {
		switch (code) {
		case QVR_KORVA_IOCTL_SET_CACHE_SIZE:
			ret = set_cache_size(arg);
			break;
		case QVR_KORVA_IOCTL_GET_PARAM:
			ret = get_param(arg);
			break;
		case QVR_KORVA_IOCTL_SET_PARAM:
			ret = set_param(arg);
			break;
		case QVR_KORVA_IOCTL_SET_CACHE_BLOCK:
			ret = set_cache_block(arg);
			break;
		default:
			ret = set_volume_controls(arg);
			break;
		}
	}
	korva.answered++;
	mutex_unlock(&korva.lock);
	pr_info("request 0x%08X (%s #%u): %ld\n", caller, requests[i].name, occurrence, ret);
	return ret;
}

static long korva_ioctl(struct file *file, unsigned int cmd, unsigned long arg)
{
	return korva_request(cmd, cmd, (void __user *)arg);
}

#ifdef CONFIG_COMPAT
/* A 32-bit caller's code: the native code with a 4-byte size field. */
#define QVR_KORVA_COMPAT_CODE(code) \
	_IOC(_IOC_DIR(code), _IOC_TYPE(code), _IOC_NR(code), sizeof(compat_uptr_t))

static long korva_compat_ioctl(struct file *file, unsigned int cmd, unsigned long arg)
{
	unsigned int code;

	switch (cmd) {
	case QVR_KORVA_IOCTL_SET_CACHE_SIZE: /* an int: the same code on both */
		code = cmd;
		break;
	case QVR_KORVA_COMPAT_CODE(QVR_KORVA_IOCTL_GET_PARAM):
		code = QVR_KORVA_IOCTL_GET_PARAM;
		break;
	case QVR_KORVA_COMPAT_CODE(QVR_KORVA_IOCTL_SET_PARAM):
		code = QVR_KORVA_IOCTL_SET_PARAM;
		break;
	case QVR_KORVA_COMPAT_CODE(QVR_KORVA_IOCTL_SET_CACHE_BLOCK):
		code = QVR_KORVA_IOCTL_SET_CACHE_BLOCK;
		break;
	case QVR_KORVA_COMPAT_CODE(QVR_KORVA_IOCTL_SET_VOLUME_CONTROLS):
		code = QVR_KORVA_IOCTL_SET_VOLUME_CONTROLS;
		break;
	default:
		pr_info("compat request 0x%08X: unknown, ENOTTY\n", cmd);
		return -ENOTTY;
	}
	pr_info("compat request 0x%08X -> 0x%08X\n", cmd, code);
	return korva_request(code, cmd, compat_ptr(arg));
}
#endif

static struct file_operations korva_fops = {
	.owner = THIS_MODULE,
	.unlocked_ioctl = korva_ioctl,
#ifdef CONFIG_COMPAT
	.compat_ioctl = korva_compat_ioctl,
#endif
	.llseek = noop_llseek,
};

static struct miscdevice korva_misc = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = QVR_KORVA_NODE_NAME,
	.fops = &korva_fops,
};

static void korva_register(struct work_struct *work)
{
	int ret = misc_register(&korva_misc);

	if (ret)
		pr_err("cannot register /dev/%s: %d\n", QVR_KORVA_NODE_NAME, ret);
	else
		pr_info("/dev/%s registered\n", QVR_KORVA_NODE_NAME);
	korva.registered = ret == 0;
}

static int __init korva_init(void)
{
	mutex_init(&korva.lock);
	if (no_compat)
		korva_fops.compat_ioctl = NULL;
	korva.debugfs = debugfs_create_dir(QVR_KORVA_NODE_NAME, NULL);
	debugfs_create_blob("cache", 0400, korva.debugfs, &korva.cache_blob);
	debugfs_create_x32("volume", 0400, korva.debugfs, &korva.volume);
	debugfs_create_u32("requests", 0400, korva.debugfs, &korva.answered);

	INIT_DELAYED_WORK(&korva.late_register, korva_register);
	pr_info("loaded: version \"%s\", compat_ioctl %s, node in %u ms\n", dsp_version,
		korva_fops.compat_ioctl ? "present" : "left out", register_delay_ms);
	if (register_delay_ms == 0) {
		korva_register(NULL);
		return korva.registered ? 0 : -ENODEV;
	}
	schedule_delayed_work(&korva.late_register, msecs_to_jiffies(register_delay_ms));
	return 0;
}

static void __exit korva_exit(void)
{
	cancel_delayed_work_sync(&korva.late_register);
	if (korva.registered)
		misc_deregister(&korva_misc);
	debugfs_remove_recursive(korva.debugfs);
	vfree(korva.cache);
}

module_init(korva_init);
module_exit(korva_exit);

MODULE_DESCRIPTION("Reference driver of the Korva control interface");
MODULE_LICENSE("GPL");
