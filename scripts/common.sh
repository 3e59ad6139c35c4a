# Shared by the scripts: timed stages and installation of missing packages.
# Sourced, not run.

stage_start=0
stage() {
  stage_end
  stage_name=$1
  stage_start=$(date +%s)
  echo "==== $stage_name"
}
stage_end() {
  if [ "$stage_start" -ne 0 ]; then
    echo "==== $stage_name: $(( $(date +%s) - stage_start )) s"
  fi
  stage_start=0
}

# Installs every package of scripts/packages.txt that dpkg does not know yet.
install_missing_packages() {
  local root=$1 missing=() pkg
  while read -r pkg; do
    case "$pkg" in ''|'#'*) continue ;; esac
    dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
  done < "$root/scripts/packages.txt"
  if [ ${#missing[@]} -eq 0 ]; then
    echo "all packages present"
    return
  fi
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  echo "installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
}

jobs() { nproc 2>/dev/null || echo 2; }
