; The Corvalen installer. NSIS copies the files; CorvalenSetup.exe is the whole user interface,
; driven through the corvalen plug-in (installer/plugin). scripts/build-installer.sh runs:
;   makensis -DBIN=<Windows programs> -DSTAGED=<generated file list, without extension>
;            -DPLUGINS=<corvalen.dll> -DOUT=<installer> -DPRODUCT=<build>/product.nsh
;            [-DVERSION=x.x.x.x] [-DSIGN=<command signing the file named last>]
;            installer/corvalen.nsi
; The version is the project's (CMakeLists.txt, through product.nsh) unless VERSION is given.
; Options of the installer: /S (no window at all: into /D= when given, else the registered folder,
; else the default; the same or an older version replaced, a newer one refused, running copies of
; the application closed), /unattended (installs at once, no agreement, running copies of the
; application closed unasked), /fixedfolder (the folder cannot be changed), /LOG=path (else
; %TEMP%\CorvalenInstaller.log).
;
; All or nothing: the files are written into "<folder>.new" and swapped in only when every one
; is there (corvalen::Commit); the registry follows the swap. Whatever ends a run before it
; leaves the installed version as it was; an interrupted run is finished or undone by the next
; (corvalen::Recover). Adding files: list them in scripts/build-installer.sh, never write into
; $INSTDIR directly.
Unicode true
Target amd64-unicode
SetCompressor /SOLID lzma
RequestExecutionLevel user
ManifestDPIAware true
; No NSIS pages: the front end asks everything.
SilentInstall silent
; A file that cannot be written fails the run; it is never skipped.
AllowSkipFiles off

!include "${PRODUCT}"
!ifndef VERSION
  !define VERSION "${PRODUCT_VERSION}"
!endif
Icon "${ICON}"
UninstallIcon "${ICON}"
VIProductVersion "${VERSION}"
VIFileVersion "${VERSION}"
VIAddVersionKey "ProductName" "Corvalen"
VIAddVersionKey "ProductVersion" "${VERSION}"
VIAddVersionKey "FileVersion" "${VERSION}"
VIAddVersionKey "FileDescription" "Corvalen installer"
VIAddVersionKey "CompanyName" "${COMPANY}"
VIAddVersionKey "LegalCopyright" "${COPYRIGHT}"
VIAddVersionKey "OriginalFilename" "CorvalenInstaller.exe"
; No file dates in the installer: one commit builds the same bytes.
SetDateSave off
!ifdef SIGN
  ; The uninstaller is made here, at compile time, so that it can be signed before it is packed.
  !uninstfinalize '${SIGN} "%1"' = 0
  !finalize '${SIGN} "%1"' = 0
!endif

!define REGKEY "Software\Corvalen"
!define UNINSTKEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\Corvalen"
!define DEFAULTDIR "$LOCALAPPDATA\Programs\Tandemo"
; Exit codes, documented in the README.
!define EXIT_INSTALLED 0
!define EXIT_CANCELLED 1
!define EXIT_FAILED 2
!define EXIT_REFUSED 3
!define EXIT_BUSY 4

Name "Corvalen"
; The title of the installer's and the uninstaller's own messages.
Caption "Corvalen 安装程序"
UninstallCaption "Corvalen 卸载程序"
OutFile "${OUT}"
InstallDir "${DEFAULTDIR}"
!addplugindir /amd64-unicode "${PLUGINS}"

!include FileFunc.nsh
!include LogicLib.nsh
!include WordFunc.nsh

Var STAGE
Var EXITCODE ; of a run that does not install
Var QUIET ; 1 with /S: no window, no question, no message

; A message, unless the run is quiet.
!macro Tell ICON TEXT
  ${If} $QUIET != 1
    MessageBox MB_OK|${ICON} "${TEXT}"
  ${EndIf}
!macroend

; One staged file, then the share of the copy done; the user may have closed the front end.
; /nonfatal: a write error comes back here, to be logged, instead of NSIS's own silent abort.
!macro Stage SOURCE TARGET PERCENT
  ClearErrors
  File /nonfatal "${SOURCE}"
  ${If} ${Errors}
    corvalen::Log "could not write $STAGE\${TARGET}: the disk is full or the folder not writable"
    Abort
  ${EndIf}
  corvalen::Progress ${PERCENT}
  Pop $0
  ${If} $0 == "cancel"
    StrCpy $EXITCODE ${EXIT_CANCELLED}
    Abort
  ${EndIf}
!macroend

; The installer's and the uninstaller's own guard, held until the process ends.
!macro TakeLock
  corvalen::Lock
  Pop $0
  ${If} $0 != "ok"
    corvalen::Log "another installer or uninstaller is running"
    !insertmacro Tell MB_ICONEXCLAMATION "另一个 Corvalen 安装程序正在运行，请等它结束后再试。"
    SetErrorLevel ${EXIT_BUSY}
    Quit
  ${EndIf}
!macroend

; Ends the run when the installed version ($R1) is newer than this one.
!macro QuitIfNewerInstalled
  ${VersionCompare} $R1 "${VERSION}" $1
  ${If} $1 == 1
    corvalen::Log "refused: $R1 is newer than ${VERSION}"
    SetErrorLevel ${EXIT_REFUSED}
    Quit
  ${EndIf}
!macroend

; 1 when the command line ($R6) has the option, else 0.
!macro Option NAME VAR
  ClearErrors
  ${GetOptions} $R6 "${NAME}" $0
  ${If} ${Errors}
    StrCpy ${VAR} 0
  ${Else}
    StrCpy ${VAR} 1
  ${EndIf}
!macroend

Section "-Stage" SecStage
  StrCpy $STAGE "$INSTDIR.new"
  corvalen::Recover "$INSTDIR" ; the folder chosen may not be the registered one
  corvalen::Log "staging ${VERSION} in $STAGE"
  !include "${STAGED}.nsh"
  SetOutPath "$STAGE"
  ClearErrors
  File "/oname=Uninstall.lst" "${STAGED}.lst"
  WriteUninstaller "$STAGE\Uninstall.exe"
  ${If} ${Errors}
    corvalen::Log "could not write the uninstaller or the file list"
    Abort
  ${EndIf}
SectionEnd

Section "-Commit"
  SetOutPath "$TEMP" ; nothing of ours is the working folder while the trees move
  corvalen::Commit "$INSTDIR"
  Pop $0
  ${If} $0 == "locked"
    corvalen::Log "the installed files are in use: closing the application suite, once"
    corvalen::CloseSuite
    Pop $0
    corvalen::Commit "$INSTDIR"
    Pop $0
  ${EndIf}
  ${If} $0 != "done"
    Abort
  ${EndIf}
  ; Registered the moment the new tree is in place with the user's files; then the old tree
  ; removed.
  WriteRegStr HKCU "${REGKEY}" "Version" "${VERSION}"
  WriteRegStr HKCU "${REGKEY}" "InstallDir" "$INSTDIR"
  corvalen::Recover "$INSTDIR"
  ; Apps & features, and the shortcuts.
  WriteRegStr HKCU "${UNINSTKEY}" "DisplayName" "Corvalen"
  WriteRegStr HKCU "${UNINSTKEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKCU "${UNINSTKEY}" "Publisher" "Corvalen"
  WriteRegStr HKCU "${UNINSTKEY}" "DisplayIcon" "$INSTDIR\Tandemo.exe"
  WriteRegStr HKCU "${UNINSTKEY}" "InstallLocation" "$INSTDIR"
  ; In place (_?=), so that whoever starts it waits for the whole uninstall, not for NSIS's copy.
  WriteRegStr HKCU "${UNINSTKEY}" "UninstallString" '"$INSTDIR\Uninstall.exe" _?=$INSTDIR'
  WriteRegStr HKCU "${UNINSTKEY}" "QuietUninstallString" '"$INSTDIR\Uninstall.exe" /S _?=$INSTDIR'
  ${GetSize} "$INSTDIR" "/S=0K" $0 $1 $2
  WriteRegDWORD HKCU "${UNINSTKEY}" "EstimatedSize" $0
  WriteRegDWORD HKCU "${UNINSTKEY}" "NoModify" 1
  WriteRegDWORD HKCU "${UNINSTKEY}" "NoRepair" 1
  ${GetTime} "" "L" $0 $1 $2 $3 $4 $5 $6
  WriteRegStr HKCU "${UNINSTKEY}" "InstallDate" "$2$1$0"
  CreateShortCut "$SMPROGRAMS\Corvalen.lnk" "$INSTDIR\Tandemo.exe"
  CreateShortCut "$DESKTOP\Corvalen.lnk" "$INSTDIR\Tandemo.exe"
  corvalen::Log "installed ${VERSION} in $INSTDIR"
SectionEnd

Function .onInit
  StrCpy $EXITCODE ${EXIT_FAILED}
  StrCpy $R5 $INSTDIR ; /D= when given, else the default
  ${GetParameters} $R6
  !insertmacro Option /S $QUIET
  ClearErrors
  ${GetOptions} $R6 "/LOG=" $R9
  ${If} ${Errors}
    StrCpy $R9 "$TEMP\CorvalenInstaller.log"
  ${EndIf}
  corvalen::OpenLog "$R9"
  corvalen::Log "Corvalen ${VERSION} installer started: $R6"
  !insertmacro TakeLock
  ReadRegStr $R1 HKCU "${REGKEY}" "Version"
  ${If} $R1 == ""
    StrCpy $R1 "0.0.0.0"
  ${EndIf}
  ReadRegStr $R2 HKCU "${REGKEY}" "InstallDir"
  ${If} $R2 != ""
  ${AndIf} $R5 == "${DEFAULTDIR}"
    StrCpy $INSTDIR $R2
  ${EndIf}
  corvalen::Log "installed version $R1; installing into $INSTDIR"
  corvalen::Recover "$INSTDIR"
  ${If} $QUIET == 1
    !insertmacro QuitIfNewerInstalled
    corvalen::CloseSuite
    Pop $0
    Return
  ${EndIf}
  ; The front end starts the helper service from its own folder.
  InitPluginsDir
  SetOutPath "$PLUGINSDIR"
  File "${BIN}/CorvalenSetup.exe"
  File "${BIN}/TandemoInstSvc.exe"
  ; Nobody's working folder, neither ours nor the front end's and the service's, which inherit
  ; it: the engine removes the plug-in folder at the end, and a working folder cannot go.
  SetOutPath "$TEMP"
  ; Space needed, in MB, from the staged files' sizes in KB.
  SectionGetSize ${SecStage} $R3
  IntOp $R3 $R3 + 1023
  IntOp $R3 $R3 / 1024
  !insertmacro Option /fixedfolder $R7
  !insertmacro Option /unattended $R8
  corvalen::Start "$PLUGINSDIR\CorvalenSetup.exe" "$PLUGINSDIR\corvalen.ipc" "$INSTDIR" $R3 \
      "${VERSION}" $R1 $R7 $R8
  Pop $0
  ${If} $0 != "ok"
    SetErrorLevel ${EXIT_FAILED}
    Quit
  ${EndIf}
  ; Back when the user starts the installation; empty when the user or the version gate gave up.
  corvalen::WaitForChoice
  Pop $0
  ${If} $0 == ""
    !insertmacro QuitIfNewerInstalled
    corvalen::Log "cancelled before installing"
    SetErrorLevel ${EXIT_CANCELLED}
    Quit
  ${EndIf}
  StrCpy $INSTDIR $0
FunctionEnd

Function .onInstFailed
  SetOutPath "$TEMP"
  RMDir /r "$INSTDIR.new"
  ${If} $EXITCODE == ${EXIT_CANCELLED}
    corvalen::Log "cancelled by the user during the copy; nothing changed"
  ${Else}
    corvalen::Log "failed; nothing changed"
    !insertmacro Tell MB_ICONSTOP "安装失败，原有版本未作任何更改。详情请见日志：$R9"
  ${EndIf}
  SetErrorLevel $EXITCODE
FunctionEnd

Function .onInstSuccess
  SetErrorLevel ${EXIT_INSTALLED}
  corvalen::Finish
  Pop $0
  ${If} $0 == "start"
    Exec '"$INSTDIR\Tandemo.exe"'
  ${EndIf}
FunctionEnd

; The uninstaller: no NSIS window; asks first, quietly with /S; the suite's processes closed;
; exactly what the install put removed, and the folder when the user put nothing there. Started
; as registered (_?=), it runs in place and returns when all is done, its own file gone from the
; folder; started without, NSIS runs it from a copy in %TEMP% and returns at once.
SilentUnInstall silent

Function un.onInit
  ${GetParameters} $R6
  !insertmacro Option /S $QUIET
  corvalen::OpenLog "$TEMP\CorvalenInstaller.log"
  corvalen::Log "Corvalen uninstaller started for $INSTDIR: $R6"
  corvalen::RemoveOwnCopy
  !insertmacro TakeLock
  ${If} $QUIET != 1
  ${AndIf} ${Cmd} `MessageBox MB_YESNO|MB_ICONQUESTION "确定要卸载 Corvalen 吗？" IDNO`
    corvalen::Log "uninstall declined"
    SetErrorLevel ${EXIT_CANCELLED}
    Quit
  ${EndIf}
FunctionEnd

Section "Uninstall"
  corvalen::CloseSuite
  Pop $0
  SetOutPath "$TEMP"
  corvalen::RemoveInstalled "$INSTDIR"
  Pop $0
  Delete "$SMPROGRAMS\Corvalen.lnk"
  Delete "$DESKTOP\Corvalen.lnk"
  DeleteRegKey HKCU "${UNINSTKEY}"
  DeleteRegKey HKCU "${REGKEY}"
  corvalen::Log "uninstalled from $INSTDIR: $0"
  ${If} $0 != "ok"
    SetErrorLevel ${EXIT_FAILED}
  ${EndIf}
SectionEnd
