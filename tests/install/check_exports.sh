#!/usr/bin/env bash
# Lists the dynamic symbols the library defines and fails on any of ours that is not
# part of the public interface. Symbols of the C++ runtime and of OpenCV (template
# code instantiated in our objects) are not ours and are ignored.
set -euo pipefail
lib="$1"
symbols=$("${NM:-nm}" -D --defined-only "$lib" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }' | c++filt)
allowed='^(qvapi::Reconstruction::CreateInstance\(\)|qvapi::Reconstruction::m_instance|qvapi::ReconstructionImpl::Release\(\)|qvapi::(EdgeFilter|EdgeFilterMad|OkadaFilter|SpeckleFilter)\(unsigned short\*, int, int(, int)*\)|qvapi::filter_module::.*|Logger::.*|(typeinfo|typeinfo name|vtable|VTT) for Logger|(virtual|non-virtual) thunk to Logger::.*|color_map)$'
foreign='^(std::|__gnu_cxx::|cv::|_init$|_fini$|_edata$|_end$|__bss_start$|(typeinfo|typeinfo name|vtable|VTT|guard variable) for (std|cv|__gnu_cxx)::)'
bad=$(printf '%s\n' "$symbols" | grep -Ev "$foreign" | grep -Ev "$allowed" || true)
for must in 'qvapi::Reconstruction::CreateInstance()' 'qvapi::Reconstruction::m_instance' \
            'qvapi::ReconstructionImpl::Release()' 'Logger::flush()'; do
  if ! printf '%s\n' "$symbols" | grep -qxF "$must"; then
    echo "missing export: $must"; exit 1
  fi
done
if [ -n "$bad" ]; then
  echo "symbols exported that are not part of the interface:"; printf '%s\n' "$bad"; exit 1
fi
echo "exports ok: $(printf '%s\n' "$symbols" | grep -Ev "$foreign" | wc -l) symbols of ours"
