# SPDX-License-Identifier: Apache-2.0
# Public headers are listed by the room that owns them (vantrel_public_headers); nothing else is installed.
include(GNUInstallDirs)
