# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh
#
# Installs and uses the packages on a booted machine, through apt and the service manager.
# shellcheck source=tests/machine/lib.sh
. /srv/try/machine/lib.sh
# shellcheck source=tests/machine/steps.sh
. /srv/try/machine/steps.sh

install_packages
start_laboratory
administration
activation_and_reports
consent
upload
reload
confinement
refused_calls
idle_exit
restart_under_load
crash
outbox
costs
purge
install telvorad telvoractl # for the boot without Landlock
