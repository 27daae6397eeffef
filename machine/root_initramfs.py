"""An installed machine's initial file system: mounts the disk, starts its init. Debian's own takes long, emulated."""
from initramfs import Initramfs

DRIVERS = ('crypto/crc32c_generic', 'lib/crc16', 'fs/mbcache', 'fs/jbd2/jbd2', 'fs/ext4/ext4', 'drivers/virtio/virtio_ring',
           'drivers/virtio/virtio', 'drivers/virtio/virtio_pci_modern_dev', 'drivers/virtio/virtio_pci_legacy_dev',
           'drivers/virtio/virtio_pci', 'drivers/block/virtio_blk')
# Read-only, as Debian mounts it: then systemd checks it before it is written to.
INIT = '''#!/bin/busybox sh
/bin/busybox mount -t devtmpfs dev /dev
for driver in DRIVERS; do /bin/busybox insmod /$driver.ko; done
until [ -b /dev/vda ]; do /bin/busybox sleep 0.1; done
/bin/busybox mount -t ext4 -o ro /dev/vda /root
exec /bin/busybox switch_root /root /sbin/init
'''


def make(kernel, system, target):
    """`kernel` is a directory of scripts/machine-kernel, `system` one of scripts/machine-root."""
    files = Initramfs()
    modules = system / 'root/lib/modules' / (kernel / 'release').read_text().strip() / 'kernel'
    files.program('/bin/busybox', kernel / 'busybox')
    for driver in DRIVERS:
        files.file(f'/{driver.rsplit("/", 1)[-1]}.ko', modules / f'{driver}.ko')
    files.text('/init', INIT.replace('DRIVERS', ' '.join(driver.rsplit('/', 1)[-1] for driver in DRIVERS)), 0o755)
    for directory in ('/dev', '/root'):
        files.directory(directory)
    files.write(target)
