import { Modal, ModalBody, ModalHeader } from "@patternfly/react-core";

export default function ApplyDialog(props: { services?: string[]; onClose: () => void }) {
  return (
    <Modal isOpen variant="medium" onClose={props.onClose} aria-labelledby="dialog-title">
      <ModalHeader title="ApplyDialog" labelId="dialog-title" />
      <ModalBody />
    </Modal>
  );
}
