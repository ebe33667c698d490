#pragma once

// The style sheets name a Windows font; elsewhere a CJK font of the same kind stands in.
void installFontSubstitutions();
