# shellcheck shell=bash
# How the page for administrators is built; sourced after setup.sh by scripts that are in the project's directory.

# The modules that the page is made of and built with, in the versions of its lock file: again once that is another.
need_page_modules() {
  local lock
  command -v npm > /dev/null || need_packages <<'END'
nodejs: builds the page for administrators
npm: fetches what it is made of
END
  lock=$(sha256sum cockpit/package-lock.json cockpit/package.json)
  if [ "$(cat cockpit/node_modules/.lock 2> /dev/null)" != "$lock" ]; then
    echo 'Fetching what the page for administrators is made of'
    quietly npm ci --prefix cockpit --no-audit --no-fund
    echo "$lock" > cockpit/node_modules/.lock
  fi
}

# build_page: from the files as they are here, into cockpit/dist.
build_page() {
  need_page_modules
  quietly node cockpit/build.mjs
}

# check_page: whether its types fit what the command prints by its schemas, and every text is translated.
check_page() {
  need_page_modules
  quietly npm run --silent --prefix cockpit check
}
