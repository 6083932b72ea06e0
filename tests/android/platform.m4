# Stands in for the policy of the Android 9 platform: the classes, macros, attributes, types and
# neverallow rules that android/sepolicy/ rests on, under the platform's names and with its meaning,
# and nothing else of it. What compiles here is complete and consistent and keeps the limits below;
# only a build of the platform shows that it keeps all the others.
#
#   m4 -D target_build_variant=user|userdebug -I android/sepolicy tests/android/platform.m4
class process
class file
class dir
class lnk_file
class blk_file
class filesystem
class capability
class cap_userns
class property_service
class fd
sid kernel
common cap { chown dac_override dac_read_search fowner mknod sys_admin sys_rawio sys_resource }
common file { append create execute execute_no_trans entrypoint getattr ioctl link lock map mounton
    open quotaon read relabelfrom relabelto rename setattr swapon unlink write }
class process { fork getattr noatsecure rlimitinh sigchld siginh transition }
class file inherits file
class dir inherits file { add_name remove_name reparent rmdir search }
class lnk_file inherits file
class blk_file inherits file
class filesystem { getattr mount unmount }
class capability inherits cap
class cap_userns inherits cap
class property_service { set }
class fd { use }
sensitivity s0;
dominance { s0 }
category c0;
level s0:c0;
mlsconstrain process transition (h1 dom h2);

# global_macros and te_macros
define(`global_capability_class_set', `{ capability cap_userns }')
define(`r_file_perms', `{ getattr open read ioctl lock map }')
define(`rw_file_perms', `{ getattr open read ioctl lock map append write }')
define(`create_file_perms', `{ create rename setattr unlink rw_file_perms }')
define(`r_dir_perms', `{ open getattr read search ioctl lock }')
define(`create_dir_perms', `{ create reparent rename rmdir setattr r_dir_perms add_name remove_name write }')
define(`r_dir_file', `allow $1 $2:dir r_dir_perms; allow $1 $2:{ file lnk_file } r_file_perms;')
define(`init_daemon_domain', `
  allow init $1_exec:file { getattr open read execute map };
  allow $1 $1_exec:file { entrypoint open read execute getattr map };
  allow init $1:process { transition siginh rlimitinh };
  type_transition init $1_exec:process $1;')
define(`get_prop', `allow $1 $2:file { getattr open read map };')
define(`set_prop', `allow $1 $2:property_service set; get_prop($1, $2)')
define(`userdebug_or_eng', `ifelse(target_build_variant, `user', , `$1')')

attribute domain;
attribute dev_type;
attribute fs_type;
attribute file_type;
attribute exec_type;
attribute data_file_type;
attribute vendor_file_type;
attribute property_type;
type kernel, domain;
type init, domain;
type vendor_init, domain;
type recovery, domain;
type ueventd, domain;
type healthd, domain;
type uncrypt, domain;
type tee, domain;
type device, dev_type;
type block_device, dev_type;
type misc_block_device, dev_type;
type userdata_block_device, dev_type;
type labeledfs, fs_type;
type proc, fs_type;
type proc_cmdline, fs_type;
type sysfs_dt_firmware_android, fs_type;
type rootfs, fs_type, file_type;
type vendor_configs_file, vendor_file_type, file_type;
type vendor_data_file, file_type, data_file_type;
type system_data_file, file_type, data_file_type;

# What every domain may, as far as the service counts on it.
allow domain { rootfs device system_data_file }:dir search;
allow domain self:process fork;

include(`property.te')
include(`tarnix.te')
include(`vendor_init.te')

# The platform's own limits.
neverallow { domain -init } block_device:blk_file { open read write };
ifelse(target_build_variant, `user', `
neverallow { domain -init -vendor_init } misc_block_device:blk_file { append open read write ioctl };
neverallow { domain -kernel -init -recovery -ueventd -healthd -uncrypt -tee }
    self:global_capability_class_set sys_rawio;')
# What this service never needs.
neverallow tarnix self:capability ~sys_rawio;
neverallow tarnix { dev_type -userdata_block_device -misc_block_device }:blk_file *;
neverallow tarnix dev_type:blk_file { create rename setattr unlink };
neverallow tarnix { file_type fs_type -tarnix_data_file }:{ file lnk_file } { append create setattr unlink write };
neverallow tarnix { file_type fs_type -tarnix_data_file }:dir { add_name create remove_name rmdir write };
neverallow tarnix { file_type fs_type -tarnix_data_file -vendor_data_file }:dir setattr;
neverallow tarnix { tarnix_config_prop tarnix_start_prop }:property_service set;
neverallow { domain -tarnix -init } tarnix_prop:property_service set;
neverallow { domain -tarnix -init } { userdata_block_device misc_block_device }:blk_file *;

role r;
role r types domain;
user u roles { r } level s0 range s0 - s0:c0;
sid kernel u:r:kernel:s0
fs_use_xattr ext4 u:object_r:labeledfs:s0;
