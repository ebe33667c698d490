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
; application closed unasked), /fixedfolder (the folder cannot be changed), /LOG=path (else a new
; file of the run's own in %TEMP%).
;
; All or nothing, and only what is its own: the run records itself, stages the files in a work
; folder of its own inside the install folder, and corvalen::Commit moves the old version's
; listed files out, the new ones in and writes the registration and the shortcuts, each change
; journaled first, up to one point of no return. Whatever ends a run before it leaves the
; installed version as it was, and the next run of any installer or uninstaller undoes it
; (corvalen::Recover). Adding files: scripts/build-installer.sh packs a folder; never write into
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
; Exit codes, documented in the README and docs/installer.md.
!define EXIT_INSTALLED 0
!define EXIT_CANCELLED 1
!define EXIT_FAILED 2
!define EXIT_REFUSED 3
!define EXIT_BUSY 4
!define EXIT_FOLDER 5
!define EXIT_ACCOUNT 6
!define EXIT_FRONTEND 7

Name "Corvalen"
; The title of the installer's and the uninstaller's own messages.
Caption "Corvalen 安装程序"
UninstallCaption "Corvalen 卸载程序"
OutFile "${OUT}"
InstallDir "${DEFAULTDIR}"
!addplugindir /amd64-unicode "${PLUGINS}"
; First in the compressed data: .onInit unpacks them before anything else, and what lies before
; them in a solid block would be decompressed first (the whole application), with no window
; on the screen meanwhile.
ReserveFile /plugin corvalen.dll
ReserveFile "${BIN}/CorvalenSetup.exe"
ReserveFile "${BIN}/TandemoInstSvc.exe"

!include FileFunc.nsh
!include LogicLib.nsh

Var STAGE
Var EXITCODE ; of a run that does not install
Var QUIET ; 1 with /S: no window, no question, no message
Var LOGFILE
Var UPGRADE ; 1 when a version is installed: what a failure leaves is that version
Var PREVIOUS ; the registered folder, when this run installs elsewhere

; A message over the front end's window, unless the run is quiet.
!macro Tell ICON TEXT
  ${If} $QUIET != 1
    MessageBox MB_OK|${ICON}|MB_TOPMOST|MB_SETFOREGROUND "${TEXT}"
  ${EndIf}
!macroend

; Ends the run before anything changed: logged, told (not with /S), with its exit code.
!macro Refuse CODE WHY TEXT
  corvalen::Log "${WHY}"
  !insertmacro Tell MB_ICONEXCLAMATION "${TEXT}"
  SetErrorLevel ${CODE}
  Quit
!macroend

; One staged file, its path, the bytes staged before it and its size named first: the front
; end's bar follows the bytes, inside a large file too. /nonfatal: a write error comes back here,
; to be logged with its cause, instead of NSIS's own silent abort. Plain jumps and calls, inserted
; once per file: LogicLib's blocks slow makensis down with every one (a minute at 3 000 files).
!macro Stage SOURCE NAME TARGET BEFORE SIZE
  corvalen::Staging "$STAGE\${TARGET}" ${BEFORE} ${SIZE}
  Call Answered
  ClearErrors
  File /nonfatal "/oname=${NAME}" "${SOURCE}"
  IfErrors 0 +3
  Push "$STAGE\${TARGET}"
  Call StagingFailed
!macroend

; The share of the copy done.
!macro Report PERCENT
  corvalen::Progress ${PERCENT}
  Call Answered
!macroend

; What the front end said meanwhile: the user may have closed it, or it may have ended.
Function Answered
  Pop $0
  ${If} $0 == "cancel"
    StrCpy $EXITCODE ${EXIT_CANCELLED}
    Abort
  ${ElseIf} $0 == "ended"
    StrCpy $EXITCODE ${EXIT_FRONTEND}
    Abort
  ${EndIf}
FunctionEnd

; A staged file (on the stack) could not be written: why, in the log; the run ends.
Function StagingFailed
  Exch $0
  corvalen::WriteError "$0"
  Abort
FunctionEnd

; What every run of the installer and the uninstaller checks first: the account it runs as,
; the one-at-a-time guard, and a run before it that ended on the way.
!macro Prepare
  corvalen::Account
  Pop $0
  ${If} $0 == "system"
    !insertmacro Refuse ${EXIT_ACCOUNT} "refused: run as a system account" \
        "Corvalen 只为当前用户安装，不能以系统帐户运行。请由要使用它的用户运行。"
  ${ElseIf} $0 == "elevated"
    !insertmacro Refuse ${EXIT_ACCOUNT} "refused: run as administrator" \
        "Corvalen 只为当前用户安装，请不要以管理员身份运行，直接双击运行即可。"
  ${EndIf}
  corvalen::Lock
  Pop $0
  ${If} $0 != "ok"
    !insertmacro Refuse ${EXIT_BUSY} "another installer or uninstaller is running" \
        "另一个 Corvalen 安装程序正在运行，请等它结束后再试。"
  ${EndIf}
  corvalen::Recover
  Pop $0
  ${If} $0 != "ok"
    !insertmacro Refuse ${EXIT_FAILED} "an earlier run could not be put right" \
        "上次安装或卸载中断后未能恢复，本次未作任何更改。详情请见日志：$LOGFILE"
  ${EndIf}
!macroend

; Ends the run when the installed version ($R1) is not one this installer may replace.
!macro QuitIfNotReplaceable
  corvalen::InstalledVersion $R1 "${VERSION}"
  Pop $1
  ${If} $1 == "newer"
    corvalen::Log "refused: $R1 is newer than ${VERSION}"
    SetErrorLevel ${EXIT_REFUSED}
    Quit
  ${ElseIf} $1 == "invalid"
    !insertmacro Refuse ${EXIT_REFUSED} "refused: the installed version $R1 cannot be read" \
        "无法识别已安装的 Corvalen 版本（$R1），安装已停止。请先卸载已安装的版本。"
  ${EndIf}
!macroend

; Ends the run when $INSTDIR is not a place to install; a folder of somebody else's files is
; taken only when the user says so (never with /S): their files stay as they are.
!macro QuitIfNoPlaceToInstall
  corvalen::InspectFolder "$INSTDIR" $R2
  Pop $0
  ${If} $0 == "protected"
    !insertmacro Refuse ${EXIT_FOLDER} "refused: $INSTDIR is a drive, a system or a user folder" \
        "不能安装到“$INSTDIR”：这是磁盘根目录或系统、用户的重要文件夹。请选择其他文件夹。"
  ${ElseIf} $0 == "nested"
    !insertmacro Refuse ${EXIT_FOLDER} "refused: $INSTDIR and the installation in $R2 hold one another" \
        "不能安装到“$INSTDIR”：它与已安装的 Corvalen（$R2）所在的文件夹相互包含。请选择其他文件夹。"
  ${ElseIf} $0 == "file"
    !insertmacro Refuse ${EXIT_FOLDER} "refused: $INSTDIR is a file" \
        "不能安装到“$INSTDIR”：已有同名的文件。请选择其他文件夹。"
  ${ElseIf} $0 == "occupied"
    ${If} $QUIET == 1
      !insertmacro Refuse ${EXIT_FOLDER} "refused: $INSTDIR holds files of somebody else's and no list of ours" ""
    ${EndIf}
    ${IfNot} ${Cmd} `MessageBox MB_YESNO|MB_ICONQUESTION|MB_DEFBUTTON2|MB_TOPMOST|MB_SETFOREGROUND "文件夹“$INSTDIR”中已有其他文件，它不是 Corvalen 的安装文件夹。$\n$\n仍要安装到这个文件夹吗？其中原有的文件都会保留。" IDYES`
      corvalen::Log "the user did not want to install among the files in $INSTDIR"
      SetErrorLevel ${EXIT_CANCELLED}
      Quit
    ${EndIf}
    corvalen::Log "installing among the files already in $INSTDIR, as the user said"
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

!macro OpenLog KIND
  ${GetParameters} $R6
  !insertmacro Option /S $QUIET
  ClearErrors
  ${GetOptions} $R6 "/LOG=" $0
  ${If} ${Errors}
    StrCpy $0 ""
  ${EndIf}
  corvalen::OpenLog "$0" "${KIND}"
  Pop $LOGFILE
!macroend

Section "-Install" SecInstall
  corvalen::Begin "$INSTDIR"
  Pop $STAGE
  ${If} $STAGE == ""
    Abort
  ${EndIf}
  corvalen::Log "staging ${VERSION} in $STAGE"
  !include "${STAGED}.nsh"
  SetOutPath "$STAGE"
  ClearErrors
  File "/oname=Uninstall.lst" "${STAGED}.lst"
  WriteUninstaller "$STAGE\Uninstall.exe"
  ${If} ${Errors}
    corvalen::WriteError "$STAGE\Uninstall.exe"
    Abort
  ${EndIf}
  !insertmacro Report 99

  ; The registration, made by the commit with the files and undone with them.
  corvalen::SetValue "${REGKEY}" "Version" "${VERSION}"
  corvalen::SetValue "${REGKEY}" "InstallDir" "$INSTDIR"
  corvalen::SetValue "${UNINSTKEY}" "DisplayName" "Corvalen"
  corvalen::SetValue "${UNINSTKEY}" "DisplayVersion" "${VERSION}"
  corvalen::SetValue "${UNINSTKEY}" "Publisher" "${COMPANY}"
  corvalen::SetValue "${UNINSTKEY}" "DisplayIcon" "$INSTDIR\Tandemo.exe"
  corvalen::SetValue "${UNINSTKEY}" "InstallLocation" "$INSTDIR"
  ; In place (_?=), so that whoever starts it waits for the whole uninstall, not for NSIS's copy.
  corvalen::SetValue "${UNINSTKEY}" "UninstallString" '"$INSTDIR\Uninstall.exe" _?=$INSTDIR'
  corvalen::SetValue "${UNINSTKEY}" "QuietUninstallString" '"$INSTDIR\Uninstall.exe" /S _?=$INSTDIR'
  corvalen::SetNumber "${UNINSTKEY}" "EstimatedSize" ${PAYLOAD_KB}
  corvalen::SetNumber "${UNINSTKEY}" "NoModify" 1
  corvalen::SetNumber "${UNINSTKEY}" "NoRepair" 1
  ${GetTime} "" "L" $0 $1 $2 $3 $4 $5 $6
  corvalen::SetValue "${UNINSTKEY}" "InstallDate" "$2$1$0"
  ; The application starts in its own folder, whoever starts it.
  corvalen::Shortcut "$SMPROGRAMS\Corvalen.lnk" "$INSTDIR\Tandemo.exe" "$INSTDIR"
  corvalen::Shortcut "$DESKTOP\Corvalen.lnk" "$INSTDIR\Tandemo.exe" "$INSTDIR"
  ${If} $PREVIOUS != ""
    corvalen::Previous "$PREVIOUS"
  ${EndIf}

  SetOutPath "$TEMP" ; nothing of ours is the working folder while the files move
  corvalen::Commit
  Pop $0
  ${If} $0 == "locked"
    corvalen::Log "the installed files are in use: closing the application suite, once"
    corvalen::CloseSuite
    Pop $1
    corvalen::Commit
    Pop $0
  ${EndIf}
  ${If} $0 == "cancel"
    StrCpy $EXITCODE ${EXIT_CANCELLED}
  ${ElseIf} $0 == "ended"
    StrCpy $EXITCODE ${EXIT_FRONTEND}
  ${EndIf}
  ${If} $0 != "done"
    Abort
  ${EndIf}
  corvalen::Log "installed ${VERSION} in $INSTDIR"
SectionEnd

Function .onInit
  StrCpy $EXITCODE ${EXIT_FAILED}
  StrCpy $R5 $INSTDIR ; /D= when given, else the default
  !insertmacro OpenLog "setup"
  corvalen::Log "Corvalen ${VERSION} installer started: $R6"
  !insertmacro Prepare
  ReadRegStr $R1 HKCU "${REGKEY}" "Version"
  ${If} $R1 == ""
    StrCpy $R1 "0.0.0.0"
    StrCpy $UPGRADE 0
  ${Else}
    StrCpy $UPGRADE 1
  ${EndIf}
  ReadRegStr $R2 HKCU "${REGKEY}" "InstallDir"
  ${If} $R2 != ""
  ${AndIf} $R5 == "${DEFAULTDIR}"
    StrCpy $INSTDIR $R2
  ${EndIf}
  corvalen::Log "installed version $R1 in '$R2'; installing into $INSTDIR"
  ; Refused before the front end, which would proceed: a version it cannot read.
  corvalen::InstalledVersion $R1 "${VERSION}"
  Pop $0
  ${If} $0 == "invalid"
    !insertmacro QuitIfNotReplaceable
  ${EndIf}
  ${If} $QUIET == 1
    !insertmacro QuitIfNotReplaceable
    Call DecideFolder
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
  SectionGetSize ${SecInstall} $R3
  IntOp $R3 $R3 + 1023
  IntOp $R3 $R3 / 1024
  !insertmacro Option /fixedfolder $R7
  !insertmacro Option /unattended $R8
  corvalen::Start "$PLUGINSDIR\CorvalenSetup.exe" "$PLUGINSDIR\corvalen.ipc" "$INSTDIR" $R3 \
      "${VERSION}" $R1 $R7 $R8
  Pop $0
  ${If} $0 == "busy"
    !insertmacro Refuse ${EXIT_BUSY} "refused: another Corvalen installer window is open" \
        "另一个 Corvalen 安装程序窗口已经打开（可能属于其他用户），请等它关闭后再试。"
  ${ElseIf} $0 != "ok"
    !insertmacro Refuse ${EXIT_FRONTEND} "refused: the front end could not start" \
        "Corvalen 安装界面无法启动，未作任何更改。详情请见日志：$LOGFILE"
  ${EndIf}
  ; Back when the user starts the installation; else the user or the version gate gave up, or
  ; the front end ended without a word.
  corvalen::WaitForChoice
  Pop $0
  Pop $1
  ${If} $0 == "ended"
    !insertmacro Refuse ${EXIT_FRONTEND} "the front end ended unexpectedly before installing" \
        "Corvalen 安装界面意外关闭，未作任何更改。详情请见日志：$LOGFILE"
  ${ElseIf} $0 != "chosen"
    !insertmacro QuitIfNotReplaceable
    corvalen::Log "cancelled before installing"
    SetErrorLevel ${EXIT_CANCELLED}
    Quit
  ${EndIf}
  StrCpy $INSTDIR $1
  ; What the front end let through is checked again by the script's own rules.
  !insertmacro QuitIfNotReplaceable
  Call DecideFolder
FunctionEnd

; $INSTDIR a place to install; $PREVIOUS the registered folder when it is another.
Function DecideFolder
  !insertmacro QuitIfNoPlaceToInstall
  StrCpy $PREVIOUS ""
  corvalen::SameFolder "$INSTDIR" $R2
  Pop $0
  ${If} $R2 != ""
  ${AndIf} $0 == 0
  ${AndIf} ${FileExists} "$R2\Uninstall.lst"
    StrCpy $PREVIOUS $R2
    corvalen::Log "the installation in $R2 moves to $INSTDIR"
  ${EndIf}
FunctionEnd

Function .onInstFailed
  SetOutPath "$TEMP"
  corvalen::Abort
  Pop $0
  ${If} $EXITCODE == ${EXIT_CANCELLED}
    corvalen::Log "cancelled by the user during the copy; nothing changed"
  ${ElseIf} $0 != "ok"
    corvalen::Log "failed; what the run changed could not all be put back"
    !insertmacro Tell MB_ICONSTOP "安装失败，部分更改未能恢复，下次运行安装程序或卸载程序时会自动恢复。详情请见日志：$LOGFILE"
  ${ElseIf} $EXITCODE == ${EXIT_FRONTEND}
    corvalen::Log "the front end ended unexpectedly; nothing changed"
    !insertmacro Tell MB_ICONSTOP "Corvalen 安装界面意外关闭，未作任何更改。详情请见日志：$LOGFILE"
  ${ElseIf} $UPGRADE == 1
    corvalen::Log "failed; nothing changed"
    !insertmacro Tell MB_ICONSTOP "安装失败，原有版本未作任何更改。详情请见日志：$LOGFILE"
  ${Else}
    corvalen::Log "failed; nothing changed"
    !insertmacro Tell MB_ICONSTOP "安装失败，未作任何更改。详情请见日志：$LOGFILE"
  ${EndIf}
  SetErrorLevel $EXITCODE
FunctionEnd

Function .onInstSuccess
  SetErrorLevel ${EXIT_INSTALLED}
  corvalen::Finish
  Pop $0
  ${If} $0 == "start"
    SetOutPath "$INSTDIR" ; the application's working folder
    Exec '"$INSTDIR\Tandemo.exe"'
  ${ElseIf} $0 == "late-cancel"
    corvalen::Log "a cancel came after the installation was complete"
    !insertmacro Tell MB_ICONINFORMATION "安装已经完成，无法取消。"
  ${ElseIf} $0 == "ended"
    corvalen::Log "the front end ended unexpectedly after the installation was complete"
  ${EndIf}
FunctionEnd

; The uninstaller: no NSIS window; asks first, quietly with /S; acts only on the registered
; installation; the suite's processes closed; exactly what the install put removed, and the
; folder when the user put nothing there, all or nothing like an install. Started as registered
; (_?=), it runs in place and returns when all is done, its own file going last; started without,
; NSIS runs it from a copy in %TEMP% and returns at once.
SilentUnInstall silent

Function un.onInit
  StrCpy $EXITCODE ${EXIT_FAILED}
  !insertmacro OpenLog "uninstall"
  corvalen::Log "Corvalen uninstaller started for $INSTDIR: $R6"
  corvalen::RemoveOwnCopy
  !insertmacro Prepare
  ReadRegStr $R2 HKCU "${UNINSTKEY}" "InstallLocation"
  corvalen::SameFolder "$INSTDIR" $R2
  Pop $0
  ${If} $0 != 1
    !insertmacro Refuse ${EXIT_FOLDER} "refused: $INSTDIR is not the registered installation ('$R2')" \
        "“$INSTDIR”中的 Corvalen 不是已登记的安装，卸载程序未作任何更改。"
  ${EndIf}
  ${If} $QUIET != 1
  ${AndIf} ${Cmd} `MessageBox MB_YESNO|MB_ICONQUESTION|MB_TOPMOST "确定要卸载 Corvalen 吗？" IDNO`
    corvalen::Log "uninstall declined"
    SetErrorLevel ${EXIT_CANCELLED}
    Quit
  ${EndIf}
FunctionEnd

Section "Uninstall"
  corvalen::CloseSuite
  Pop $0
  SetOutPath "$TEMP"
  corvalen::Begin "$INSTDIR"
  Pop $0
  ${If} $0 == ""
    Abort
  ${EndIf}
  StrCpy $R3 1
  ${IfNot} ${FileExists} "$INSTDIR\Uninstall.lst"
    StrCpy $R3 0
    corvalen::Log "no file list in $INSTDIR: no file is removed, only the registration"
  ${EndIf}
  corvalen::Uninstall
  corvalen::RemoveKey "${UNINSTKEY}"
  corvalen::RemoveValue "${REGKEY}" "Version"
  corvalen::RemoveValue "${REGKEY}" "InstallDir"
  corvalen::RemoveShortcut "$SMPROGRAMS\Corvalen.lnk"
  corvalen::RemoveShortcut "$DESKTOP\Corvalen.lnk"
  corvalen::Commit
  Pop $0
  ${If} $0 == "locked"
    corvalen::Log "files are in use: closing the application suite, once more"
    corvalen::CloseSuite
    Pop $1
    corvalen::Commit
    Pop $0
  ${EndIf}
  ${If} $0 != "done"
    Abort
  ${EndIf}
  ${If} $R3 == 0
    !insertmacro Tell MB_ICONINFORMATION "在“$INSTDIR”中找不到 Corvalen 的文件清单，因此没有删除任何文件；Corvalen 的登记和快捷方式已删除。"
  ${EndIf}
  corvalen::Log "uninstalled from $INSTDIR"
SectionEnd

Function un.onUninstFailed
  SetOutPath "$TEMP"
  corvalen::Abort
  Pop $0
  corvalen::Log "uninstall failed; Corvalen stays installed and registered"
  !insertmacro Tell MB_ICONSTOP "卸载未能完成：有文件正在使用或无法删除。Corvalen 仍保持安装，请关闭它后再试。详情请见日志：$LOGFILE"
  SetErrorLevel $EXITCODE
FunctionEnd
