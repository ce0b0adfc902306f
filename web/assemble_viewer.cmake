# cmake -DNPM=... -DSOURCE=web/viewer -DWORK=<npm folder> -DOUT=<asset folder> -DSTAMP=<file> -P
# Installs the page's locked npm packages into WORK (`npm ci`, again only when the lock
# changes) and assembles OUT: the page's sources, three.js's module build and the
# OrbitControls addon, and three.js's licence. A failed install leaves OUT out and
# the build going; the stamp records the failure so that it is not retried on every
# build (remove the stamp, or change the lock, to try again).
file(MAKE_DIRECTORY ${WORK})
set(installed ${WORK}/node_modules/.qv-installed)
file(SHA256 ${SOURCE}/package-lock.json lock_hash)
set(have "")
if(EXISTS ${installed})
  file(READ ${installed} have)
endif()
if(NOT have STREQUAL lock_hash)
  configure_file(${SOURCE}/package.json ${WORK}/package.json COPYONLY)
  configure_file(${SOURCE}/package-lock.json ${WORK}/package-lock.json COPYONLY)
  execute_process(COMMAND ${NPM} ci --no-audit --no-fund --loglevel=error
    WORKING_DIRECTORY ${WORK} RESULT_VARIABLE failed)
  if(failed)
    file(REMOVE_RECURSE ${OUT})
    message(WARNING "npm ci failed for the viewer's page (no registry?): the viewer's assets are left "
      "out; remove ${STAMP} to try again")
    file(WRITE ${STAMP} "npm ci failed\n")
    return()
  endif()
  file(WRITE ${installed} ${lock_hash})
endif()

set(three ${WORK}/node_modules/three)
file(REMOVE_RECURSE ${OUT})
file(MAKE_DIRECTORY ${OUT}/vendor/three/addons/controls)
file(COPY ${SOURCE}/index.html ${SOURCE}/style.css ${SOURCE}/js DESTINATION ${OUT})
file(COPY ${three}/build/three.module.js ${three}/build/three.core.js ${three}/LICENSE
  DESTINATION ${OUT}/vendor/three)
file(COPY ${three}/examples/jsm/controls/OrbitControls.js DESTINATION ${OUT}/vendor/three/addons/controls)
file(WRITE ${STAMP} "assembled\n")
