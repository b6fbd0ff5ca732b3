# shellcheck shell=bash
# The gateway's bus as the benchmarks start it, sourced by
# bench/peers/minidlna_bench.sh and bench/e2e/e2e_bench.sh.
#
# gateway_model UUID MOUNTPOINT: prints the model for rilld --model: no
# metadata storage chosen yet, one disk with one partition (UUID, mounted at
# MOUNTPOINT) and an index rule over its "Media" directory.
gateway_model() {
  printf '%s\n' VFS.MetaDataService.ForceRescan=0 VFS.MetaDataService.MetaDataStorageStatus=NoSuitableDisk \
    VFS.MetaDataService.ProfilingStatus=Ready \
    Storage.Disk.1.CapacityInMBytes=1000 Storage.Disk.1.DoUnMount=0 \
    Storage.Disk.1.Partition.1.MountPoint="$2" Storage.Disk.1.Partition.1.Status=1 \
    Storage.Disk.1.Partition.1.Manageddisk=1 Storage.Disk.1.Partition.1.FreeSpaceInKBytes=1048576 \
    ContentSharing.UPnPAV.IndexRules.1.Status=Up ContentSharing.UPnPAV.IndexRules.1.Enable=1 \
    ContentSharing.UPnPAV.IndexRules.1.UUID="$1" ContentSharing.UPnPAV.IndexRules.1.DirectoryName=Media \
    ContentSharing.UPnPAV.IndexRules.1.EnableMovie=1 ContentSharing.UPnPAV.IndexRules.1.EnableMusic=1 \
    ContentSharing.UPnPAV.IndexRules.1.EnablePicture=1
}
