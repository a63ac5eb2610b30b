#!/usr/bin/env bash
# Fails, listing the offending lines, when a file includes another module's detail/ headers.
#
# A module is the deepest folder holding a CMakeLists.txt under platform/ or at the top level;
# its test/, testing/ and detail/ folders belong to it. bench/ is outside every module, so a
# benchmark includes no detail/ at all. Includes are resolved against the including file's
# folder first, then against platform/ and the top level, as the build does.
set -euo pipefail
cd "$(dirname "$0")/.."

sources() {
   if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
      git ls-files -co --exclude-standard -- '*.h' '*.hpp' '*.cpp' '*.cc'
   else
      find . -path ./build -prune -o -type f \( -name '*.h' -o -name '*.hpp' -o -name '*.cpp' \
         -o -name '*.cc' \) -print | sed 's#^\./##'
   fi
}

# The module that holds folder $1, or nothing for bench/ and loose folders.
moduleOf() {
   local dir=$1
   while [ "$dir" != . ] && [ "$dir" != / ]; do
      case $dir in bench | bench/*) return ;; esac
      if [ -f "$dir/CMakeLists.txt" ]; then
         echo "$dir"
         return
      fi
      dir=$(dirname "$dir")
   done
}

# The folder holding the detail/ that an include names, as the build would find it.
detailParent() {
   local includer=$1 included=$2
   local parent=${included%%detail/*}
   parent=${parent%/}
   local here
   here=$(dirname "$includer")
   if [ -e "$here/$included" ]; then
      realpath -m --relative-to=. "$here/${parent:-.}"
   elif [ -d "platform/$parent" ]; then
      echo "platform/$parent"
   else
      echo "$parent"
   fi
}

offences=()
while IFS= read -r hit; do
   file=${hit%%:*}
   rest=${hit#*:}
   text=${rest#*:}
   included=$(sed -E 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]([^">]*)[">].*/\1/' \
      <<<"$text")
   mine=$(moduleOf "$(dirname "$file")")
   parent=$(detailParent "$file" "$included")
   owner=$(moduleOf "$parent")
   owner=${owner:-$parent}
   if [ -z "$mine" ] || [ "$mine" != "$owner" ]; then
      offences+=("$file:${rest%%:*}: $text   (${mine:-outside every module} -> $owner)")
   fi
done < <(sources | xargs -r grep -HnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]([^">]*/)?detail/' || true)

if [ ${#offences[@]} -ne 0 ]; then
   echo "check-structure: these lines include another module's detail/ headers:" >&2
   printf '  %s\n' "${offences[@]}" >&2
   echo "Give the other module a public header for what it needs instead." >&2
   exit 1
fi
echo "check-structure: no file includes another module's detail/"
