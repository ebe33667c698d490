# shellcheck shell=bash disable=SC2034 # read by those who source it
# The front end's windows (their size, shadow margin included, at 100 %) and the points a
# person clicks inside them: the one source for the e2e test (tests/e2e/CMakeLists.txt makes a
# header of it), scripts/demo.sh and the benchmarks. Sizes are WIDTHxHEIGHT, points "X Y".
MAIN_FOLDED=476x346
MAIN_UNFOLDED=476x426
MSG_BOX=416x226
CHECK_BOX="112 259"    # the agreement box, a 16 x 16 square around it
INSTALL="238 215"      # 安装
START_USING="238 269"  # 开始使用, on the completion page
MORE_OPTIONS="229 308" # 更多选项
BROWSE="408 355"       # the folder button, options shown
CLOSE="438 39"         # ✕
MSG_OK="293 185"       # a question's 确定
MSG_CANCEL="143 185"   # and its 取消
# Rectangles "X Y W H": all that hovering a control repaints, and the progress bar.
HOVER_INSTALL="188 198 100 34"
HOVER_CLOSE="428 29 20 20"
HOVER_AGREEMENT="228 248 61 20" # 服务协议
HOVER_PRIVACY="311 248 61 20"   # 隐私政策
HOVER_OPTIONS="201 298 77 20"   # 更多选项 and its arrow
PROGRESS_BAR="48 235 380 12"
