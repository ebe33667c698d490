; The floor bench/installer.sh holds CorvalenInstaller.exe to: the same application folder in a
; plain NSIS installer, made by the same makensis with the same compressor, its files written
; straight into the folder (no staging, no front end, no plug-in), an uninstaller that removes
; the folder.
;   makensis -DPAYLOAD=<folder> -DOUT=<installer> bench/floor.nsi
Unicode true
Target amd64-unicode
SetCompressor /SOLID lzma
RequestExecutionLevel user
SilentInstall silent
SilentUnInstall silent
SetDateSave off
Name "Floor"
OutFile "${OUT}"
InstallDir "$LOCALAPPDATA\Programs\Floor"

Section
  SetOutPath "$INSTDIR"
  File /r "${PAYLOAD}/*"
  WriteUninstaller "$INSTDIR\Uninstall.exe"
SectionEnd

Section "Uninstall"
  SetOutPath "$TEMP"
  RMDir /r "$INSTDIR"
SectionEnd
