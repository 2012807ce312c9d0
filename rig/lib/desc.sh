# Reads a television description (see rig/README.md, "Description format").
#
# Fills:
#   DISKS              disk names, in order
#   DK[name.key]       disk settings (size, table, dev, plugged, vendor, ...)
#   PT[name.i.key]     settings of partition i (1-based) of disk name
#   FL[name.i.j.key]   entry j of the files put on partition i
# and stages the files to put on the disks under $STAGE/<disk>/<i>/.

declare -a DISKS=()
declare -A DK=() PT=() FL=()

DISK_KEYS=" size table dev plugged vendor model rev serial idVendor idProduct product manufacturer port "
PART_KEYS=" size fs label fat type damage "
FILE_KEYS=" text hex size from "
FS_KINDS=" vfat ntfs ext2 ext3 ext4 exfat none "

# desc_fail LINE DISK MESSAGE: a description error, naming the disk if known.
desc_fail() {
  local line=$1 disk=$2
  shift 2
  if [ -n "$disk" ]; then
    die "disk '$disk': step 'description' (line $line): $*"
  fi
  die "step 'description' (line $line): $*"
}

# parse_size TEXT: bytes for "123", "64K", "256M", "2G", "1T" (binary units,
# an optional "iB"/"B" after the unit).
parse_size() {
  [[ $1 =~ ^([0-9]+)([KkMmGgTt]?)(i?B)?$ ]] || return 1
  local n=${BASH_REMATCH[1]} u=${BASH_REMATCH[2]^^}
  n=$((10#$n))
  case $u in
    K) n=$((n << 10)) ;;
    M) n=$((n << 20)) ;;
    G) n=$((n << 30)) ;;
    T) n=$((n << 40)) ;;
  esac
  printf '%s\n' "$n"
}

# decode_value TEXT: prints the bytes a label or content value stands for:
# "hex:D6D0CEC4" is raw bytes, anything else is taken as it is.
decode_value() {
  local v=$1
  if [[ $v == hex:* ]]; then
    v=${v#hex:}
    [[ $v =~ ^([0-9A-Fa-f]{2})+$ ]] || return 1
    local esc
    esc=$(sed 's/../\\x&/g' <<<"$v")
    printf '%b' "$esc"
  else
    printf '%s' "$v"
  fi
}

# Splits one description line into words, honouring "double" and 'single'
# quotes the way xargs does; fills the array TOKENS.
split_words() {
  local line=$1 tmp
  tmp=$(mktemp)
  if ! printf '%s' "$line" | xargs -r printf '%s\0' >"$tmp" 2>/dev/null; then
    rm -f "$tmp"
    return 1
  fi
  mapfile -d '' -t TOKENS <"$tmp"
  rm -f "$tmp"
}

# parse_desc FILE STAGE: reads the description FILE (relative "from=" paths are
# taken from FILE's folder) and stages its files under STAGE.
parse_desc() {
  local file=$1 stage=$2 base lineno=0 line disk="" part=0 nfile=0
  base=$(cd "$(dirname "$file")" && pwd)
  [ -r "$file" ] || die "step 'description': cannot read '$file'"

  while IFS= read -r line || [ -n "$line" ]; do
    lineno=$((lineno + 1))
    [[ $line =~ ^[[:space:]]*(#.*)?$ ]] && continue
    split_words "$line" || desc_fail "$lineno" "$disk" "unbalanced quotes"
    [ ${#TOKENS[@]} -gt 0 ] || continue
    local kind=${TOKENS[0]}
    local -a rest=("${TOKENS[@]:1}")
    case $kind in
      disk)
        [ ${#rest[@]} -ge 1 ] || desc_fail "$lineno" "" "a disk needs a name"
        disk=${rest[0]}
        [[ $disk =~ ^[A-Za-z0-9][A-Za-z0-9_.-]{0,31}$ ]] ||
          desc_fail "$lineno" "" "bad disk name '$disk' (letters, digits, _ . -)"
        [ -z "${DK[$disk.size]+x}" ] || desc_fail "$lineno" "$disk" "a disk of that name is already described"
        DISKS+=("$disk")
        DK[$disk.nparts]=0
        DK[$disk.table]=msdos
        DK[$disk.plugged]=yes
        part=0
        local kv
        for kv in "${rest[@]:1}"; do
          [[ $kv == *=* ]] || desc_fail "$lineno" "$disk" "expected key=value, got '$kv'"
          local k=${kv%%=*} v=${kv#*=}
          [[ $DISK_KEYS == *" $k "* ]] || desc_fail "$lineno" "$disk" "unknown disk key '$k' (known:$DISK_KEYS)"
          DK[$disk.$k]=$v
        done
        [ -n "${DK[$disk.size]:-}" ] || desc_fail "$lineno" "$disk" "size= is required"
        local bytes
        bytes=$(parse_size "${DK[$disk.size]}") || desc_fail "$lineno" "$disk" "bad size '${DK[$disk.size]}'"
        [ $((bytes % 1048576)) = 0 ] && [ "$bytes" -ge 4194304 ] ||
          desc_fail "$lineno" "$disk" "size must be a whole number of MiB, at least 4M"
        DK[$disk.bytes]=$bytes
        case ${DK[$disk.table]} in
          msdos | dos) DK[$disk.table]=msdos ;;
          gpt | none) ;;
          *) desc_fail "$lineno" "$disk" "table must be msdos, gpt or none, not '${DK[$disk.table]}'" ;;
        esac
        case ${DK[$disk.plugged]} in yes | no) ;; *) desc_fail "$lineno" "$disk" "plugged must be yes or no" ;; esac
        if [ -n "${DK[$disk.dev]:-}" ]; then
          [[ ${DK[$disk.dev]} =~ ^sd[a-z]$ ]] || desc_fail "$lineno" "$disk" "dev must look like sdb, not '${DK[$disk.dev]}'"
        fi
        if [ -n "${DK[$disk.port]:-}" ]; then
          [[ ${DK[$disk.port]} =~ ^[1-9][0-9]?$ ]] || desc_fail "$lineno" "$disk" "port must be 1..99"
        fi
        local hexkey
        for hexkey in idVendor idProduct; do
          if [ -n "${DK[$disk.$hexkey]:-}" ]; then
            [[ ${DK[$disk.$hexkey]} =~ ^[0-9a-fA-F]{4}$ ]] || desc_fail "$lineno" "$disk" "$hexkey must be 4 hex digits"
          fi
        done
        ;;
      part)
        [ -n "$disk" ] || desc_fail "$lineno" "" "'part' before any 'disk'"
        part=$((DK[$disk.nparts] + 1))
        if [ "${DK[$disk.table]}" = none ] && [ "$part" -gt 1 ]; then
          desc_fail "$lineno" "$disk" "table=none takes one 'part' line (the file system on the whole disk)"
        fi
        DK[$disk.nparts]=$part
        PT[$disk.$part.size]=rest
        PT[$disk.$part.fs]=none
        PT[$disk.$part.nfiles]=0
        local kv
        for kv in "${rest[@]}"; do
          [[ $kv == *=* ]] || desc_fail "$lineno" "$disk" "partition $part: expected key=value, got '$kv'"
          local k=${kv%%=*} v=${kv#*=}
          [[ $PART_KEYS == *" $k "* ]] || desc_fail "$lineno" "$disk" "partition $part: unknown key '$k' (known:$PART_KEYS)"
          PT[$disk.$part.$k]=$v
        done
        local fs=${PT[$disk.$part.fs]}
        [[ $FS_KINDS == *" $fs "* ]] || desc_fail "$lineno" "$disk" "partition $part: unknown fs '$fs' (known:$FS_KINDS)"
        if [ "${PT[$disk.$part.size]}" != rest ]; then
          local pb
          pb=$(parse_size "${PT[$disk.$part.size]}") || desc_fail "$lineno" "$disk" "partition $part: bad size '${PT[$disk.$part.size]}'"
          [ $((pb % 512)) = 0 ] && [ "$pb" -gt 0 ] || desc_fail "$lineno" "$disk" "partition $part: size must be a positive multiple of 512"
          PT[$disk.$part.bytes]=$pb
        fi
        if [ -n "${PT[$disk.$part.label]+x}" ]; then
          decode_value "${PT[$disk.$part.label]}" >/dev/null ||
            desc_fail "$lineno" "$disk" "partition $part: bad label '${PT[$disk.$part.label]}' (hex: needs pairs of hex digits)"
        fi
        if [ -n "${PT[$disk.$part.fat]:-}" ]; then
          [ "$fs" = vfat ] || desc_fail "$lineno" "$disk" "partition $part: fat= only applies to fs=vfat"
          case ${PT[$disk.$part.fat]} in 12 | 16 | 32) ;; *) desc_fail "$lineno" "$disk" "partition $part: fat must be 12, 16 or 32" ;; esac
        fi
        if [ -n "${PT[$disk.$part.damage]:-}" ]; then
          case ${PT[$disk.$part.damage]} in
            fixable | unfixable) ;;
            *) desc_fail "$lineno" "$disk" "partition $part: damage must be fixable or unfixable" ;;
          esac
          case $fs in
            ext2 | ext3 | ext4 | ntfs) ;;
            *) desc_fail "$lineno" "$disk" "partition $part: damage= is offered for ext2/ext3/ext4/ntfs only, not $fs" ;;
          esac
        fi
        ;;
      file | dir)
        [ "$part" -gt 0 ] || desc_fail "$lineno" "$disk" "'$kind' must follow a 'part' line"
        [ ${#rest[@]} -ge 1 ] || desc_fail "$lineno" "$disk" "$kind needs a path"
        local path=${rest[0]}
        [[ $path == /* ]] || desc_fail "$lineno" "$disk" "partition $part: path '$path' must start with /"
        [[ /$path/ != */../* ]] || desc_fail "$lineno" "$disk" "partition $part: path '$path' must not contain .."
        nfile=$((PT[$disk.$part.nfiles] + 1))
        PT[$disk.$part.nfiles]=$nfile
        FL[$disk.$part.$nfile.kind]=$kind
        FL[$disk.$part.$nfile.path]=$path
        local target=$stage/$disk/$part$path
        if [ "$kind" = dir ]; then
          [ ${#rest[@]} = 1 ] || desc_fail "$lineno" "$disk" "partition $part: dir takes only a path"
          mkdir -p -- "$target"
          continue
        fi
        mkdir -p -- "$(dirname -- "$target")"
        : >"$target"
        local kv
        for kv in "${rest[@]:1}"; do
          [[ $kv == *=* ]] || desc_fail "$lineno" "$disk" "partition $part: file $path: expected key=value, got '$kv'"
          local k=${kv%%=*} v=${kv#*=}
          [[ $FILE_KEYS == *" $k "* ]] || desc_fail "$lineno" "$disk" "partition $part: file $path: unknown key '$k' (known:$FILE_KEYS)"
          case $k in
            text) printf '%s' "$v" >"$target" ;;
            hex) decode_value "hex:$v" >"$target" || desc_fail "$lineno" "$disk" "partition $part: file $path: bad hex" ;;
            size)
              local fb
              fb=$(parse_size "$v") || desc_fail "$lineno" "$disk" "partition $part: file $path: bad size '$v'"
              head -c "$fb" /dev/urandom >"$target"
              ;;
            from)
              local src=$v
              [[ $src == /* ]] || src=$base/$src
              [ -e "$src" ] || desc_fail "$lineno" "$disk" "partition $part: file $path: from='$v' does not exist"
              if [ -d "$src" ]; then
                rm -f -- "$target"
                mkdir -p -- "$target"
                cp -R -- "$src/." "$target/"
              else
                cp -- "$src" "$target"
              fi
              ;;
          esac
        done
        ;;
      *)
        desc_fail "$lineno" "$disk" "unknown line kind '$kind' (disk, part, file, dir)"
        ;;
    esac
  done <"$file"

  [ ${#DISKS[@]} -gt 0 ] || die "step 'description': no disk described"
  local d
  for d in "${DISKS[@]}"; do
    if [ "${DK[$d.table]}" = none ] && [ "${DK[$d.nparts]}" = 0 ]; then
      PT[$d.1.size]=rest
      PT[$d.1.fs]=none
      PT[$d.1.nfiles]=0
      DK[$d.nparts]=1
    fi
    # Fixed partition sizes must leave room for the table (1 MiB in front,
    # and 1 MiB behind for gpt's backup).
    local i sum=1048576 nparts=${DK[$d.nparts]}
    [ "${DK[$d.table]}" = gpt ] && sum=$((sum + 1048576))
    [ "${DK[$d.table]}" = none ] && sum=0
    for ((i = 1; i <= nparts; i++)); do
      if [ "${PT[$d.$i.size]}" = rest ] && [ "$i" -lt "$nparts" ] && [ "${DK[$d.table]}" != none ]; then
        die "disk '$d': step 'description': only the last partition may take the rest of the disk (partition $i has no size=)"
      fi
      [ -n "${PT[$d.$i.bytes]:-}" ] && sum=$((sum + PT[$d.$i.bytes]))
    done
    if [ "$sum" -gt "${DK[$d.bytes]}" ]; then
      : # left to the partitioning step, which names what does not fit
    fi
    if [ "${DK[$d.table]}" = msdos ] && [ "$nparts" -gt 4 ]; then
      DK[$d.logical]=yes
    fi
  done
}

# Partition number of the i-th described partition: with more than four on an
# msdos table the fourth slot becomes the extended partition and the rest are
# logical partitions 5, 6, ...
part_number() {
  local d=$1 i=$2
  if [ "${DK[$d.logical]:-}" = yes ] && [ "$i" -ge 4 ]; then
    printf '%s\n' $((i + 1))
  else
    printf '%s\n' "$i"
  fi
}

# The sfdisk script that lays out disk d.
sfdisk_script() {
  local d=$1 i nparts=${DK[$d.nparts]} table=${DK[$d.table]}
  if [ "$table" = msdos ]; then echo "label: dos"; else echo "label: gpt"; fi
  for ((i = 1; i <= nparts; i++)); do
    if [ "${DK[$d.logical]:-}" = yes ] && [ "$i" = 4 ]; then
      echo "type=5"
    fi
    local fs=${PT[$d.$i.fs]} type=${PT[$d.$i.type]:-} line=""
    if [ -z "$type" ]; then
      if [ "$table" = msdos ]; then
        case $fs in
          vfat) case ${PT[$d.$i.fat]:-} in 12) type=1 ;; 16) type=e ;; *) type=c ;; esac ;;
          ntfs | exfat) type=7 ;;
          *) type=83 ;;
        esac
      else
        case $fs in
          vfat | ntfs | exfat) type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7 ;;
          *) type=0FC63DAF-8483-4772-8E79-3D69D8477DE4 ;;
        esac
      fi
    fi
    [ -n "${PT[$d.$i.bytes]:-}" ] && line="size=$((PT[$d.$i.bytes] / 512)), "
    echo "${line}type=$type"
  done
}
