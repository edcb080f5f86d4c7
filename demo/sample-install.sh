#!/usr/bin/env bash
# sample-install.sh DIR: lays down a sample Corvane Lumidoc 10 installation in
# the fixture DIR that tests/sandbox/sandbox.sh laid down (which says where
# each folder lies): /Applications, /Library and /root as a program inside
# sees them, plus the package receipts and the loaded launch agents in
# /var/db/doubles, where the pkgutil and launchctl doubles keep them.
#
# The application is "/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app"
# (identifier com.corvane.lumidoc.pro, version 10.0.3), next to its companion
# "Corvane Ravelin.app" (com.corvane.ravelin). Both install logs list what the
# installers laid down, in their usual forms: absolute paths, paths followed
# by tab-separated fields, a line with leading blanks, paths relative to the
# application's folder, paths under ~, folders after their contents, and one
# file that is already gone.
set -euo pipefail

(($# == 1)) || {
    echo "usage: sample-install.sh DIR" >&2
    exit 64
}
root=$1
home=/root
sandbox=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/tests/sandbox/sandbox.sh
state=$("$sandbox" path "$root" /var/db/doubles)

app_folder="/Applications/Corvane Lumidoc X Pro"
app="$app_folder/Corvane Lumidoc Pro.app"
support="/Library/Application Support/Corvane/Lumidoc"

# at PATH: where a path inside the sandbox lies under DIR.
at() {
    "$sandbox" path "$root" "$1"
}

# put PATH [CONTENTS]: writes a file (contents from the argument or stdin).
put() {
    local file
    file=$(at "$1")
    mkdir -p "$(dirname "$file")"
    if (($# > 1)); then printf '%s' "$2" >"$file"; else cat >"$file"; fi
}

# executable PATH: a small program standing in for a Mach-O binary.
executable() {
    put "$1" "#!/bin/sh
echo \"${1##*/} 10.0.3\"
"
    chmod 0755 "$(at "$1")"
}

# info_plist BUNDLE IDENTIFIER VERSION EXECUTABLE [PACKAGE-TYPE]
info_plist() {
    put "$1/Contents/Info.plist" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>CFBundleIdentifier</key>
	<string>$2</string>
	<key>CFBundleName</key>
	<string>$4</string>
	<key>CFBundleExecutable</key>
	<string>$4</string>
	<key>CFBundlePackageType</key>
	<string>${5:-APPL}</string>
	<key>CFBundleShortVersionString</key>
	<string>$3</string>
	<key>CFBundleVersion</key>
	<string>$3</string>
</dict>
</plist>
PLIST
}

# bundle PATH IDENTIFIER VERSION EXECUTABLE [PACKAGE-TYPE]: a macOS-layout bundle.
bundle() {
    info_plist "$@"
    executable "$1/Contents/MacOS/$4"
    put "$1/Contents/PkgInfo" "${5:-APPL}????"
    put "$1/Contents/Resources/English.lproj/InfoPlist.strings" "CFBundleName = \"$4\";
"
}

hash_of_app_path() {
    printf %s "$1" | openssl dgst -sha224 -r | cut -d ' ' -f 1
}

# agent PLIST LABEL PROGRAM: a per-user launch agent as the updater writes it.
agent() {
    put "$1" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>Label</key>
	<string>$2</string>
	<key>ProgramArguments</key>
	<array>
		<string>$3</string>
	</array>
	<key>RunAtLoad</key>
	<true/>
	<key>StartInterval</key>
	<integer>12600</integer>
</dict>
</plist>
PLIST
}

# --- The application folder
bundle "$app" com.corvane.lumidoc.pro 10.0.3 "Corvane Lumidoc Pro"
put "$app/Contents/Resources/English.lproj/Localizable.strings" '"OpenDocument" = "Open Document";
"SaveAsPDF" = "Save as PDF";
'
put "$app/Contents/Resources/Lumidoc.icns" "icns"
put "$app/Contents/Resources/LumidocDocument.icns" "icns"
put "$app/Contents/Frameworks/LumidocCore.framework/Versions/A/LumidocCore" "core"
ln -sfn A "$(at "$app/Contents/Frameworks/LumidocCore.framework/Versions/Current")"
ln -sfn Versions/Current/LumidocCore "$(at "$app/Contents/Frameworks/LumidocCore.framework/LumidocCore")"
helper="$app/Contents/MacOS/Updater/Corvane Lumidoc Pro Updater Helper.app"
bundle "$helper" com.corvane.lumidoc.pro.updaterhelper 10.0.3 "Corvane Lumidoc Pro Updater Helper"
helper_program="$helper/Contents/MacOS/Corvane Lumidoc Pro Updater Helper"

bundle "$app_folder/Corvane Ravelin.app" com.corvane.ravelin 4.0.2 "Corvane Ravelin"
put "$app_folder/Corvane Lumidoc Pro Read Me.pdf" "%PDF-1.4
% Corvane Lumidoc Pro 10 Read Me
%%EOF
"
# The folder's custom icon.
put "$app_folder/Icon"$'\r' ""

# --- Support files
put "$support/10/Resources/Stamps/Approved.pdf" "%PDF-1.4 stamp"
put "$support/10/Resources/Stamps/Draft.pdf" "%PDF-1.4 stamp"
put "$support/10/Resources/Color Profiles/Corvane Press.icc" "icc"
put "$support/10/Fonts/CorvaneSans-Regular.otf" "OTTO sans"
put "$support/10/Fonts/CorvaneSerif-Regular.otf" "OTTO serif"
put "$support/10/Dictionaries/en_US.dic" "lumidoc
ravelin
"
put "$support/10/Legacy Import.bundle/Contents/Info.plist" "<plist/>"
put "/Library/Application Support/Corvane/Ravelin/Settings/Presets.plist" "<plist/>"
put "/Library/Preferences/com.corvane.ravelin.plist" "<plist/>"
put "$home/Library/Preferences/com.corvane.lumidoc.pro.plist" "<plist/>"
put "$home/Library/Caches/com.corvane.lumidoc.pro/Thumbnails/1.png" "png"
put "$home/Library/Application Support/Corvane/Ravelin/Recent.plist" "<plist/>"

# --- The browser plug-in and its preference file, which names this application
bundle "/Library/Internet Plug-Ins/CorvanePDFViewer.plugin" com.corvane.lumidoc.pdfviewer 10.0.3 CorvanePDFViewer BRPL
put "/Library/Preferences/com.corvane.lumidoc.pdfviewer.plist" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>WebBrowserUsePath</key>
	<string>file://localhost${app// /%20}/</string>
	<key>WebBrowserUseVersion</key>
	<string>10.0.3</string>
</dict>
</plist>
PLIST

# --- Print components of version 10
bundle "/Library/Automator/Save as Corvane PDF.action" com.corvane.lumidoc.automator.saveaspdf 10.0.3 \
    "Save as Corvane PDF" BNDL
put "/Library/Automator/Save as Corvane PDF.action/Contents/Resources/English.lproj/main.nib" "nib"
bundle "/Library/PDF Services/Save as Corvane PDF.app" com.corvane.lumidoc.pdfservices 10.0.1 "Save as Corvane PDF"

# --- Application manager references: this product's, and another product's that stays
put "/Library/Application Support/Corvane/CorvaneApplicationManager/JEXRefs/com.corvane.Lumidoc_10.jexref" \
    "product=com.corvane.lumidoc.pro
version=10.0.3
path=$app
"
put "/Library/Application Support/Corvane/CorvaneApplicationManager/JEXRefs/com.corvane.Ravelin_4.jexref" \
    "product=com.corvane.ravelin
version=4.0.2
"

# --- Updater launch agents: this application's (its helper exists), a stale
# one of an installation whose helper is gone, and an unrelated one.
agents="$home/Library/LaunchAgents"
own_label="com.corvane.QEL.$(hash_of_app_path "$app")"
agent "$agents/$own_label.plist" "$own_label" "$helper_program"
old_app="/Applications/Corvane Lumidoc 9 Pro/Corvane Lumidoc Pro.app"
stale_label="com.corvane.QEL.$(hash_of_app_path "$old_app")"
agent "$agents/$stale_label.plist" "$stale_label" \
    "$old_app/Contents/MacOS/Updater/Corvane Lumidoc Pro Updater Helper.app/Contents/MacOS/Corvane Lumidoc Pro Updater Helper"
agent "$agents/com.example.backup.plist" com.example.backup /usr/bin/true

mkdir -p "$state/receipts"
printf '%s\n' "$agents/$own_label.plist" "$agents/$stale_label.plist" "$agents/com.example.backup.plist" \
    >"$state/launchd-loaded"

# --- Install logs
tab=$'\t'
put "$support/com.corvane.lumidoc.pro/uninstall.log" <<LOG
$support/10/Resources/Stamps/Approved.pdf${tab}file${tab}0644${tab}14
$support/10/Resources/Stamps/Draft.pdf${tab}file${tab}0644${tab}14
$support/10/Resources${tab}dir${tab}0755
$support/10/Fonts/CorvaneSans-Regular.otf${tab}file${tab}0644${tab}9
$support/10/Fonts/CorvaneSerif-Regular.otf${tab}file${tab}0644${tab}10
$support/10/Fonts

   $support/10/Legacy Import.bundle
$support/10/Dictionaries/en_US.dic
$support/10/Updates/LumidocUpd1001.patch
/Library/Internet Plug-Ins/CorvanePDFViewer.plugin${tab}bundle
/Library/Preferences/com.corvane.lumidoc.pdfviewer.plist
~/Library/Preferences/com.corvane.lumidoc.pro.plist
~/Library/Caches/com.corvane.lumidoc.pro
Corvane Lumidoc Pro Read Me.pdf
LOG
put "$support/com.corvane.ravelin/uninstall.log" <<LOG
Corvane Ravelin.app${tab}bundle${tab}4.0.2
/Library/Application Support/Corvane/Ravelin
/Library/Preferences/com.corvane.ravelin.plist
~/Library/Application Support/Corvane/Ravelin
LOG

# --- Package receipts: the ten of this product and one of an older version
for identifier in \
    com.corvane.lumidoc.10.viewer.app.pkg \
    com.corvane.lumidoc.10.viewer.preinstall.pkg \
    com.corvane.lumidoc.10.viewer.appsupport.pkg \
    com.corvane.lumidoc.10.viewer.browser.pkg \
    com.corvane.lumidoc.10.viewer.print_automator.pkg \
    com.corvane.lumidoc.10.viewer.print_pdf_services.pkg \
    com.corvane.lumidoc.10.viewer.preferences.pkg \
    com.corvane.lumidoc.a10.LumidocUpd1001 \
    com.corvane.lumidoc.a10.LumidocSecUpd1002 \
    com.corvane.lumidoc.a10.LumidocSecUpd1003 \
    com.corvane.lumidoc.9.viewer.app.pkg; do
    printf '/\n' >"$state/receipts/$identifier"
done
