"""Initial file systems that mount an installed machine's disk. Debian's own takes long, emulated."""
from initramfs import Initramfs
from machine import DONE

# Which of them are modules, and not in the kernel, depends on the architecture.
DRIVERS = ('crypto/crc32c_generic', 'lib/crc16', 'fs/mbcache', 'fs/jbd2/jbd2', 'fs/ext4/ext4', 'drivers/virtio/virtio_ring',
           'drivers/virtio/virtio', 'drivers/virtio/virtio_mmio', 'drivers/virtio/virtio_pci_modern_dev',
           'drivers/virtio/virtio_pci_legacy_dev', 'drivers/virtio/virtio_pci', 'drivers/block/virtio_blk')
LOAD = '''#!/bin/busybox sh
/bin/busybox mount -t devtmpfs dev /dev
for driver in DRIVERS; do /bin/busybox insmod /$driver.ko; done
until [ -b /dev/vda ]; do /bin/busybox sleep 0.1; done
'''
# Starts the disk's init. Read-only, as Debian mounts it: then systemd checks it before it is written to.
BOOT = '''/bin/busybox mount -t ext4 -o ro /dev/vda /disk
exec /bin/busybox switch_root /disk /sbin/init
'''
# Runs /setup/run on the disk "system"; /setup is the disk "setup". The third one brings the results out.
SETUP = '''/bin/busybox --install -s /bin
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
sleep 1
system=$(findfs LABEL=system) setup=$(findfs LABEL=setup)
mount -t ext4 $system /disk
mkdir -p /disk/setup /disk/proc /disk/sys /disk/dev
mount -t ext4 -o ro $setup /disk/setup
mount -t proc proc /disk/proc
mount -t sysfs sys /disk/sys
mount -o bind /dev /disk/dev
ln -s /proc/self/fd /dev/fd
mount -t tmpfs tmp /disk/tmp
done=
chroot /disk /bin/sh /setup/run && done=yes
tar -cf /tmp/results.tar -C /disk var/log
for mounted in tmp dev sys proc setup; do umount /disk/$mounted; done
rmdir /disk/setup
umount /disk || done=
for disk in /dev/vd?; do [ $disk = $system ] || [ $disk = $setup ] || cat /tmp/results.tar >$disk; done
[ -z "$done" ] || echo "RESULTS"
poweroff -f
'''


def make(kernel, system, target, end=BOOT):
    """`kernel` is a directory of scripts/machine-kernel, `system` one of scripts/machine-root. `end` is what follows when the drivers
    are loaded: BOOT or SETUP."""
    files = Initramfs()
    modules = system / 'root/lib/modules' / (kernel / 'release').read_text().strip() / 'kernel'
    files.program('/bin/busybox', kernel / 'busybox')
    drivers = [driver for driver in DRIVERS if (modules / f'{driver}.ko').exists()]
    names = [driver.rsplit('/', 1)[-1] for driver in drivers]
    for driver, name in zip(drivers, names):
        files.file(f'/{name}.ko', modules / f'{driver}.ko')
    files.text('/init', (LOAD + end).replace('DRIVERS', ' '.join(names)).replace('RESULTS', DONE), 0o755)
    for directory in ('/dev', '/disk', '/tmp'):
        files.directory(directory)
    files.write(target)
